#include "host/runtime/signal_watch.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <cerrno>

namespace arvo::host {

SignalWatch::SignalWatch(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, &m_previous);
  m_fd.Reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

SignalWatch::~SignalWatch() {
  m_fd.Reset();
  pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
}

int SignalWatch::Take() {
  signalfd_siginfo info{};
  const ssize_t n = ::read(m_fd.Get(), &info, sizeof info);
  return n == static_cast<ssize_t>(sizeof info) ? static_cast<int>(info.ssi_signo) : 0;
}

int SignalWatch::Wait(int fd, int timeoutMs) {
  pollfd fds[2] = {{m_fd.Get(), POLLIN, 0}, {fd, POLLIN, 0}};
  const nfds_t count = fd >= 0 ? 2 : 1;
  int n;
  do {
    n = ::poll(fds, count, timeoutMs);
  } while (n < 0 && errno == EINTR);
  if (n > 0 && (fds[0].revents & POLLIN)) return Take();
  return 0;
}

}  // namespace arvo::host
