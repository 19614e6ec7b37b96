#include "host/runtime/catch_up_requests.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace arvo::host {

CatchUpRequests::CatchUpRequests() : m_ready(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void CatchUpRequests::Request(const std::string& reason) {
  std::lock_guard lock(m_mutex);
  if (m_pending) {
    if (m_pending->find(reason) == std::string::npos) *m_pending += "; " + reason;
    return;
  }
  m_pending = reason;
  const std::uint64_t one = 1;
  if (m_ready.Valid()) (void)WriteAll(m_ready.Get(), &one, sizeof one);
}

std::optional<std::string> CatchUpRequests::Take() {
  std::lock_guard lock(m_mutex);
  std::optional<std::string> taken = std::exchange(m_pending, std::nullopt);
  std::uint64_t count = 0;
  if (taken && m_ready.Valid()) (void)!::read(m_ready.Get(), &count, sizeof count);
  return taken;
}

}  // namespace arvo::host
