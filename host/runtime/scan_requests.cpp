#include "host/runtime/scan_requests.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cstdint>

namespace arvo::host {

ScanRequests::ScanRequests() : m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void ScanRequests::Request(const std::string& reason) {
  std::lock_guard lock(m_mutex);
  if (m_reasons.empty()) {
    const std::uint64_t one = 1;
    (void)WriteAll(m_wake.Get(), &one, sizeof one);
  }
  if (std::find(m_reasons.begin(), m_reasons.end(), reason) == m_reasons.end())
    m_reasons.push_back(reason);
}

std::optional<std::string> ScanRequests::Take() {
  std::lock_guard lock(m_mutex);
  std::uint64_t count = 0;
  (void)!::read(m_wake.Get(), &count, sizeof count);  // nothing to read is fine
  if (m_reasons.empty()) return std::nullopt;
  std::string joined;
  for (const std::string& reason : m_reasons) joined += (joined.empty() ? "" : ", ") + reason;
  m_reasons.clear();
  return joined;
}

bool ScanRequests::Pending() const {
  std::lock_guard lock(m_mutex);
  return !m_reasons.empty();
}

}  // namespace arvo::host
