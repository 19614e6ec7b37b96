#include "host/util/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace arvo::host {
namespace {

bool g_stdoutClosed = false;  // written once by main before any thread starts

}  // namespace

void ReserveStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    if (fd == STDOUT_FILENO) g_stdoutClosed = true;
    // open() returns the lowest free number, which is `fd` here.
    const int null = ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    if (null >= 0 && null != fd) ::close(null);
  }
}

bool StandardOutputWasClosed() { return g_stdoutClosed; }

}  // namespace arvo::host
