// Signals as a readable descriptor (signalfd), so that the commands wait for
// them in poll() next to their other descriptors and no work is ever done in
// a signal handler. What a signal means is the command's choice.
#pragma once

#include <signal.h>

#include <initializer_list>

#include "host/util/scoped_fd.h"

namespace arvo::host {

// Blocks the watched signals in the calling thread and opens a signalfd for
// them. Must be made on the main thread before any other thread starts, so
// that every thread inherits the blocked mask and the signals stay pending
// for the descriptor. SIGHUP ignored when the watch is made (nohup) stays
// ignored; the others are watched whatever their disposition. The destructor discards the signals
// still pending (a second Ctrl-C while a run stops must not kill the process on its way out) and
// restores the previous mask.
class SignalWatch {
 public:
  // SIGINT, SIGTERM, SIGQUIT, SIGHUP and SIGUSR1.
  static constexpr std::initializer_list<int> kDefault = {SIGINT, SIGTERM, SIGQUIT, SIGHUP,
                                                          SIGUSR1};

  explicit SignalWatch(std::initializer_list<int> signals = kDefault);
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  bool Valid() const { return m_fd.Valid(); }
  int Fd() const { return m_fd.Get(); }
  // Reads one pending signal; 0 when none is pending.
  int Take();
  // Blocks until a signal arrives or `fd` (if >= 0) becomes readable, or
  // `timeoutMs` passes (-1: no limit). Returns the signal taken, or 0.
  int Wait(int fd, int timeoutMs) { return Wait({fd}, timeoutMs); }
  // The same for several descriptors (negative ones are left out).
  int Wait(std::initializer_list<int> fds, int timeoutMs);

 private:
  ScopedFd m_fd;
  sigset_t m_previous{};
};

// SIGUSR1: reopen the output file (log rotation); every other watched
// signal stops scan and watch.
inline bool IsReopenSignal(int signal) { return signal == SIGUSR1; }

}  // namespace arvo::host
