#include "pax_common/beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace pax::tools {
namespace {

// Longest path handed to the kernel in one piece.
constexpr std::size_t kMaxPiece = 4095;
constexpr int kIntermediateFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// openat2 may answer EAGAIN when a rename races with its checks.
constexpr int kAgainRetries = 8;

// -1 not probed yet, 0 portable walk, 1 openat2.
std::atomic<int> g_kernelBeneath{-1};

class OwnedFd {
 public:
  OwnedFd() = default;
  ~OwnedFd() { Reset(-1); }
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  void Reset(int fd) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }
  int Get() const { return m_fd; }

 private:
  int m_fd = -1;
};

int Openat2(int dirFd, const char* path, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  long fd = -1;
  for (int attempt = 0; attempt < kAgainRetries; ++attempt) {
    fd = ::syscall(SYS_openat2, dirFd, path, &how, sizeof how);
    if (fd >= 0 || errno != EAGAIN) break;
  }
  return static_cast<int>(fd);
}

bool ProbeKernel() {
  if (std::getenv("ARVO_FIM_NO_OPENAT2") != nullptr) return false;
  const int fd = Openat2(AT_FDCWD, ".", kIntermediateFlags);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

// The components of `relative` ("" and "." left out). False with errno set
// when the path is absolute or climbs with "..".
bool Components(std::string_view relative, std::vector<std::string_view>& out) {
  if (relative.empty()) {
    errno = ENOENT;
    return false;
  }
  if (relative.front() == '/') {
    errno = EXDEV;
    return false;
  }
  std::size_t pos = 0;
  while (pos <= relative.size()) {
    std::size_t end = relative.find('/', pos);
    if (end == std::string_view::npos) end = relative.size();
    const std::string_view part = relative.substr(pos, end - pos);
    if (part == "..") {
      errno = EXDEV;
      return false;
    }
    if (!part.empty() && part != ".") out.push_back(part);
    pos = end + 1;
  }
  return true;
}

// After a failed O_NOFOLLOW | O_DIRECTORY open of `name` in `at`: a symbolic
// link is reported as ELOOP rather than ENOTDIR.
void ReportLinkAsLoop(int at, const std::string& name) {
  const int err = errno;
  struct stat st {};
  errno = ::fstatat(at, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode) ? ELOOP
                                                                                            : err;
}

int PortableOpen(int dirFd, std::string_view relative, int flags) {
  std::vector<std::string_view> parts;
  if (!Components(relative, parts)) return -1;
  if (relative.back() == '/') flags |= O_DIRECTORY;
  if (parts.empty()) return ::openat(dirFd, ".", flags);
  OwnedFd current;
  int at = dirFd;
  std::string name;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const bool last = i + 1 == parts.size();
    name.assign(parts[i]);
    const int fd = ::openat(at, name.c_str(), last ? flags : kIntermediateFlags);
    if (fd < 0) {
      // An intermediate link is ELOOP, as openat2 says (a trailing '/'
      // makes the last component one); a final one keeps the kernel's
      // answer (ENOTDIR for O_DIRECTORY), as with openat2.
      if ((!last || relative.back() == '/') && errno == ENOTDIR) ReportLinkAsLoop(at, name);
      return -1;
    }
    if (last) return fd;
    current.Reset(fd);
    at = fd;
  }
  return -1;  // not reached: the last component returns
}

int KernelOpen(int dirFd, std::string_view relative, int flags) {
  std::vector<std::string_view> parts;
  if (!Components(relative, parts)) return -1;
  // Past the kernel's length limit: open leading pieces, each cut at a '/'.
  OwnedFd current;
  int at = dirFd;
  std::string piece;
  while (relative.size() > kMaxPiece) {
    const std::size_t cut = relative.rfind('/', kMaxPiece);
    if (cut == std::string_view::npos || cut == 0) {
      errno = ENAMETOOLONG;
      return -1;
    }
    piece.assign(relative.substr(0, cut));
    const int fd = Openat2(at, piece.c_str(), kIntermediateFlags);
    if (fd < 0) return -1;
    current.Reset(fd);
    at = fd;
    relative.remove_prefix(cut + 1);
  }
  piece.assign(relative.empty() ? std::string_view(".") : relative);
  return Openat2(at, piece.c_str(), flags);
}

// Calls `use(at, name)` with the directory holding the final component of
// `relative` and that component's name; the directory is opened beneath
// `dirFd` when the path has more than one component.
template <class Use>
auto WithParent(int dirFd, std::string_view relative, Use use) noexcept -> decltype(use(0, "")) {
  try {
    while (relative.size() > 1 && relative.back() == '/') relative.remove_suffix(1);
    const std::size_t slash = relative.rfind('/');
    const std::string name(slash == std::string_view::npos ? relative : relative.substr(slash + 1));
    if (name.empty() || name == "..") {
      errno = name.empty() ? ENOENT : EXDEV;
      return -1;
    }
    if (slash == std::string_view::npos) return use(dirFd, name.c_str());
    if (slash == 0) {
      errno = EXDEV;
      return -1;
    }
    OwnedFd parent;
    // With its '/': a parent that is a link is an intermediate one (ELOOP).
    parent.Reset(OpenBeneath(dirFd, relative.substr(0, slash + 1), O_PATH | O_DIRECTORY));
    if (parent.Get() < 0) return -1;
    return use(parent.Get(), name.c_str());
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

// The /proc/self/fd form of `name` in directory `at`, for calls without an
// *at form; `name` alone relative to the current directory.
std::string ViaProc(int at, const char* name) {
  if (at == AT_FDCWD) return name;
  return "/proc/self/fd/" + std::to_string(at) + "/" + name;
}

}  // namespace

int OpenBeneath(int dirFd, std::string_view relative, int flags) noexcept {
  try {
    flags |= O_NOFOLLOW | O_CLOEXEC;
    return KernelBeneathEnabled() ? KernelOpen(dirFd, relative, flags)
                                  : PortableOpen(dirFd, relative, flags);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

int LStatBeneath(int dirFd, std::string_view relative, struct stat& st) noexcept {
  return WithParent(dirFd, relative, [&st](int at, const char* name) {
    return ::fstatat(at, name, &st, AT_SYMLINK_NOFOLLOW);
  });
}

int LStatxBeneath(int dirFd, std::string_view relative, unsigned mask, struct statx& sx) noexcept {
  return WithParent(dirFd, relative, [mask, &sx](int at, const char* name) {
    return ::statx(at, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, mask, &sx);
  });
}

ssize_t LGetXattrBeneath(int dirFd, std::string_view relative, const char* attribute, void* value,
                         std::size_t size) noexcept {
  return WithParent(dirFd, relative, [&](int at, const char* name) -> ssize_t {
    return ::lgetxattr(ViaProc(at, name).c_str(), attribute, value, size);
  });
}

int StatFsBeneath(int dirFd, std::string_view relative, struct statfs& fs) noexcept {
  return WithParent(dirFd, relative, [&fs](int at, const char* name) {
    return ::statfs(ViaProc(at, name).c_str(), &fs);
  });
}

bool KernelBeneathEnabled() noexcept {
  int state = g_kernelBeneath.load(std::memory_order_relaxed);
  if (state < 0) {
    state = ProbeKernel() ? 1 : 0;
    g_kernelBeneath.store(state, std::memory_order_relaxed);
  }
  return state == 1;
}

void SetKernelBeneathEnabled(bool enabled) noexcept {
  g_kernelBeneath.store(enabled && ProbeKernel() ? 1 : 0, std::memory_order_relaxed);
}

}  // namespace pax::tools
