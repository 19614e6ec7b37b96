#include "host/runtime/progress_line.h"

#include "host/util/scoped_fd.h"

namespace arvo::host {
namespace {

constexpr char kErase[] = "\r\033[K";

}  // namespace

void ProgressLine::Show(const std::string& text) {
  const std::string line = "\r" + text + "\033[K";
  std::lock_guard lock(m_mutex);
  (void)WriteAll(m_fd, line.data(), line.size());
  m_shown = true;
}

void ProgressLine::Clear() {
  std::lock_guard lock(m_mutex);
  if (!m_shown) return;
  (void)WriteAll(m_fd, kErase, sizeof kErase - 1);
  m_shown = false;
}

}  // namespace arvo::host
