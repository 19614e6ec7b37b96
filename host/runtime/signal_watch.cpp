#include "host/runtime/signal_watch.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <vector>

namespace arvo::host {

SignalWatch::SignalWatch(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    // nohup's contract. SIGINT and SIGQUIT, which a shell ignores in its
    // background jobs, are still watched: a `kill -QUIT` must stop the run.
    struct sigaction current {};
    if (signal == SIGHUP && ::sigaction(signal, nullptr, &current) == 0 &&
        current.sa_handler == SIG_IGN)
      continue;
    sigaddset(&set, signal);
  }
  pthread_sigmask(SIG_BLOCK, &set, &m_previous);
  m_fd.Reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

SignalWatch::~SignalWatch() {
  if (m_fd.Valid()) {
    while (Take() != 0) {
    }
  }
  m_fd.Reset();
  pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
}

int SignalWatch::Take() {
  signalfd_siginfo info{};
  const ssize_t n = ::read(m_fd.Get(), &info, sizeof info);
  return n == static_cast<ssize_t>(sizeof info) ? static_cast<int>(info.ssi_signo) : 0;
}

int SignalWatch::Wait(std::initializer_list<int> fds, int timeoutMs) {
  std::vector<pollfd> polled{{m_fd.Get(), POLLIN, 0}};
  for (const int fd : fds)
    if (fd >= 0) polled.push_back({fd, POLLIN, 0});
  int n;
  do {
    n = ::poll(polled.data(), polled.size(), timeoutMs);
  } while (n < 0 && errno == EINTR);
  if (n > 0 && (polled[0].revents & POLLIN)) return Take();
  return 0;
}

}  // namespace arvo::host
