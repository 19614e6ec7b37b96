#include "pause_gate.h"

namespace pax::fim {

bool PauseGate::Checkpoint() {
  if (m_paused.load() == 0) return false;
  std::unique_lock lock(m_mutex);
  ++m_waiters;
  m_acknowledged.notify_all();
  m_resumed.wait(lock, [this] { return m_paused.load() == 0; });
  --m_waiters;
  m_acknowledged.notify_all();
  return true;
}

void PauseGate::RequestPause() {
  m_paused.store(1);
  std::unique_lock lock(m_mutex);
  m_acknowledged.wait(lock, [this] { return m_waiters != 0; });
}

void PauseGate::Release() {
  std::unique_lock lock(m_mutex);
  m_paused.store(0);
  if (m_waiters == 0) return;
  m_resumed.notify_all();
  m_acknowledged.wait(lock, [this] { return m_waiters == 0; });
}

}  // namespace pax::fim
