// Owner of one file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace arvo::host {

// Closes its descriptor on destruction. Move-only; not thread-safe itself.
class ScopedFd {
 public:
  ScopedFd() noexcept = default;
  explicit ScopedFd(int fd) noexcept : m_fd(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) Reset(std::exchange(other.m_fd, -1));
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() { Reset(); }

  int Get() const noexcept { return m_fd; }
  bool Valid() const noexcept { return m_fd >= 0; }
  [[nodiscard]] int Release() noexcept { return std::exchange(m_fd, -1); }
  // Closes the current descriptor (EINTR from close is not retried: on Linux
  // the descriptor is gone either way).
  void Reset(int fd = -1) noexcept {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

// Writes all of [data, data + size), retrying short writes and EINTR.
// Returns 0 or the errno of the failed write.
int WriteAll(int fd, const void* data, std::size_t size) noexcept;

}  // namespace arvo::host
