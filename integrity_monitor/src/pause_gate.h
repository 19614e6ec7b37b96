// The pause gate between the on-demand task's controlling thread (Pause,
// Resume) and its worker (the walk's checkpoints).
//
// The worker passes Checkpoint() at safe points; while a pause is requested
// it parks there until Release(). RequestPause() returns only once the
// worker has parked, and Release() only once it has left the gate, so the
// task's state word (Suspended, Started) always tells the truth about the
// worker. There are no time-outs: a RequestPause() with no worker reaching a
// checkpoint blocks until one does (the task relies on Release() from its
// final release to unblock a parked worker, not a waiting controller).
//
// Thread-safety: any number of controller and worker threads; the gate
// takes its own mutex and never calls out while holding it. Lock order: a
// worker may hold the task lock when it parks; a controller must not.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace pax::fim {

class PauseGate {
 public:
  PauseGate() = default;
  PauseGate(const PauseGate&) = delete;
  PauseGate& operator=(const PauseGate&) = delete;

  // Worker side. Returns false at once (without locking) when no pause is
  // requested; otherwise parks until Release() and returns true.
  bool Checkpoint();

  // Controller side: requests a pause and blocks until a worker has parked.
  void RequestPause();

  // Controller side: lifts the pause and, if a worker is parked, blocks
  // until every parked worker has left the gate.
  void Release();

  bool IsPaused() const { return m_paused.load() != 0; }

 private:
  std::atomic<std::uint8_t> m_paused{0};
  std::mutex m_mutex;
  std::condition_variable m_resumed;       // the worker waits on it
  std::condition_variable m_acknowledged;  // the controller waits on it
  unsigned m_waiters = 0;                  // guarded by m_mutex
};

}  // namespace pax::fim
