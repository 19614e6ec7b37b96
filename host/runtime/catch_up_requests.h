// Requests for a catch-up scan, coalesced: however many requests arrive
// while one is pending, one scan answers them all, and a request that
// arrives while that scan runs makes exactly one more after it.
//
// The scanning thread waits for Fd() to become readable next to its other
// descriptors, calls Take() right before each scan it starts (any scan,
// scheduled or not, answers the requests made before it), and runs a scan
// when Take() returned a request.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "host/util/scoped_fd.h"

namespace arvo::host {

// Thread-safe.
class CatchUpRequests {
 public:
  CatchUpRequests();
  CatchUpRequests(const CatchUpRequests&) = delete;
  CatchUpRequests& operator=(const CatchUpRequests&) = delete;

  // False when the descriptor could not be made (Request still records).
  bool Valid() const { return m_ready.Valid(); }
  // Readable while a request is pending.
  int Fd() const { return m_ready.Get(); }

  // Records a request; `reason` joins the pending request's reasons.
  void Request(const std::string& reason);
  // The pending request's reasons ("; "-separated), clearing it; nullopt
  // when none is pending.
  std::optional<std::string> Take();

 private:
  const ScopedFd m_ready;  // eventfd, non-zero while a request is pending
  std::mutex m_mutex;
  std::optional<std::string> m_pending;  // guarded by m_mutex
};

}  // namespace arvo::host
