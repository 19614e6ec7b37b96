// Requests for an on-demand scan from any thread (a coverage gap, a reload,
// the schedule), folded together: however many arrive, one scan is pending
// at a time, and it carries the reasons of every request it answers.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/util/scoped_fd.h"

namespace arvo::host {

// Thread-safe. Fd() becomes readable when a request is pending, so that a
// poll loop wakes for it.
class ScanRequests {
 public:
  ScanRequests();

  // Adds `reason` to the pending request, or makes one.
  void Request(const std::string& reason);
  // The pending request's reasons ("a, b"), which is then no longer pending.
  std::optional<std::string> Take();
  bool Pending() const;
  int Fd() const { return m_wake.Get(); }

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_reasons;  // guarded by m_mutex; empty: none pending
  ScopedFd m_wake;                     // eventfd
};

}  // namespace arvo::host
