#include "host/util/run_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace arvo::host {
namespace {

flock WholeFile(short type) {
  flock lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;
  return lock;
}

pid_t ReadPid(int fd) {
  char text[32] = {};
  const ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
  if (n <= 0) return 0;
  const long pid = std::strtol(text, nullptr, 10);
  return pid > 0 ? static_cast<pid_t>(pid) : 0;
}

}  // namespace

RunLock::State RunLock::TryTake() {
  if (Held()) return State::kTaken;
  m_holder = 0;
  ScopedFd fd(::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd.Valid()) {
    m_error = "cannot open the lock file '" + m_path + "': " + std::strerror(errno);
    return State::kError;
  }
  flock lock = WholeFile(F_WRLCK);
  if (::fcntl(fd.Get(), F_OFD_SETLK, &lock) != 0) {
    if (errno == EAGAIN || errno == EACCES) {
      m_holder = ReadPid(fd.Get());
      return State::kBusy;
    }
    m_error = "cannot lock '" + m_path + "': " + std::strerror(errno);
    return State::kError;
  }
  // The pid is informative only: a failure to record it leaves the lock held.
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd.Get(), 0) == 0) (void)WriteAll(fd.Get(), pid.data(), pid.size());
  m_fd = std::move(fd);
  return State::kTaken;
}

pid_t RunLock::QueryHolder(const std::string& path) {
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.Valid()) return 0;
  flock lock = WholeFile(F_WRLCK);
  if (::fcntl(fd.Get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return ReadPid(fd.Get());
}

std::string RunLockPathFor(const std::string& database) { return database + ".lock"; }

}  // namespace arvo::host
