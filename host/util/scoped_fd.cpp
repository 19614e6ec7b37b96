#include "host/util/scoped_fd.h"

#include <cerrno>

namespace arvo::host {

int WriteAll(int fd, const void* data, std::size_t size) noexcept {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

}  // namespace arvo::host
