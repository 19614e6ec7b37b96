// Signals (SIGINT and SIGTERM unless told otherwise) as a readable
// descriptor (signalfd), so that the commands wait for them in poll() next
// to their other descriptors and no work is ever done in a signal handler.
#pragma once

#include <signal.h>

#include <initializer_list>

#include "host/util/scoped_fd.h"

namespace arvo::host {

// Blocks `signals` in the calling thread and opens a signalfd for them. Must be made on the main
// thread before any other thread starts, so that every thread inherits the blocked mask and the
// signals stay pending for the descriptor. The destructor restores the previous mask.
class SignalWatch {
 public:
  explicit SignalWatch(std::initializer_list<int> signals = {SIGINT, SIGTERM});
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  bool Valid() const { return m_fd.Valid(); }
  int Fd() const { return m_fd.Get(); }
  // Reads one pending signal; 0 when none is pending.
  int Take();
  // Blocks until a signal arrives or `fd` (if >= 0) becomes readable, or
  // `timeoutMs` passes (-1: no limit). Returns the signal taken, or 0.
  int Wait(int fd, int timeoutMs);

 private:
  ScopedFd m_fd;
  sigset_t m_previous{};
};

}  // namespace arvo::host
