#include "host/runtime/pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace arvo::host {
namespace {

std::optional<pid_t> ReadPid(int fd) {
  char text[32] = {};
  const ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
  if (n <= 0) return std::nullopt;
  pid_t pid = 0;
  const auto [end, ec] = std::from_chars(text, text + n, pid);
  if (ec != std::errc() || pid <= 0) return std::nullopt;
  return pid;
}

}  // namespace

bool PidFileLock::Acquire(const std::string& file, std::string& error) {
  ScopedFd fd(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!fd.Valid()) {
    error = "cannot open the pid file '" + file + "': " + std::strerror(errno);
    return false;
  }
  if (::flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
    const int err = errno;
    if (err == EWOULDBLOCK) {
      const std::optional<pid_t> other = ReadPid(fd.Get());
      error = "a daemon is already running (pid " + (other ? std::to_string(*other) : "?") +
              ", pid file '" + file + "')";
    } else {
      error = "cannot lock the pid file '" + file + "': " + std::strerror(err);
    }
    return false;
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd.Get(), 0) != 0 || ::pwrite(fd.Get(), pid.data(), pid.size(), 0) < 0) {
    error = "cannot write the pid file '" + file + "': " + std::strerror(errno);
    return false;
  }
  m_fd = std::move(fd);
  return true;
}

std::optional<pid_t> LockedPid(const std::string& file) {
  const ScopedFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.Valid()) return std::nullopt;
  if (::flock(fd.Get(), LOCK_SH | LOCK_NB) == 0) return std::nullopt;  // closing unlocks
  if (errno != EWOULDBLOCK) return std::nullopt;
  return ReadPid(fd.Get());
}

}  // namespace arvo::host
