#include "host/services/file_factory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>

#include "framework/exceptions.h"
#include "host/util/scoped_fd.h"
#include "orn/simple_object.h"
#include "orn/text.h"
#include "pax_common/beneath.h"

namespace arvo::host {
namespace {

constexpr int kOpenFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOATIME | O_NOCTTY | O_CLOEXEC;

orn::FileIdentity IdentityOf(const struct stat& st) {
  orn::FileIdentity id;
  id.dev = st.st_dev;
  id.ino = st.st_ino;
  id.mode = st.st_mode;
  id.size = st.st_size;
  id.mtimeSec = st.st_mtim.tv_sec;
  id.mtimeNsec = st.st_mtim.tv_nsec;
  id.ctimeSec = st.st_ctim.tv_sec;
  id.ctimeNsec = st.st_ctim.tv_nsec;
  return id;
}

// The identity is the fstat taken right after the open: it describes the
// file this stream reads, whatever happens to its path afterwards.
class FileIO final : public orn::SimpleObject<orn::IIO> {
 public:
  FileIO(ScopedFd fd, const struct stat& st) : m_fd(std::move(fd)), m_identity(IdentityOf(st)) {}

  orn::result_t Read(void* buffer, std::size_t size, std::size_t* read) override {
    if (!read || (!buffer && size != 0)) return orn::errors::kInvalidArgument;
    *read = 0;
    if (size > SSIZE_MAX) size = SSIZE_MAX;
    while (true) {
      const ssize_t n = ::read(m_fd.Get(), buffer, size);
      if (n >= 0) {
        *read = static_cast<std::size_t>(n);
        return orn::errors::kOk;
      }
      if (errno != EINTR) return orn::ResultFromErrno(errno);
    }
  }

  orn::result_t GetIdentity(orn::FileIdentity* identity) const override {
    if (!identity) return orn::errors::kInvalidArgument;
    *identity = m_identity;
    return orn::errors::kOk;
  }

 private:
  ScopedFd m_fd;
  const orn::FileIdentity m_identity;
};

// openat that drops O_NOATIME when the kernel refuses it to a non-owner.
int OpenAt(int dir, const char* path, int flags) {
  int fd = ::openat(dir, path, flags);
  if (fd < 0 && errno == EPERM && (flags & O_NOATIME) != 0)
    fd = ::openat(dir, path, flags & ~O_NOATIME);
  return fd;
}

// Opens a path of any length: while the rest is too long for the kernel, a
// leading piece that ends at a '/' is opened as a directory and the rest is
// resolved relative to it (intermediate links are followed, as in a plain
// open). Returns 0 or an errno.
int OpenPath(const std::string& path, int flags, ScopedFd& out) {
  ScopedFd dir;
  int dirFd = AT_FDCWD;
  std::string_view rest = path;
  std::string piece;
  while (rest.size() >= PATH_MAX) {
    const std::size_t cut = rest.rfind('/', PATH_MAX - 1);
    if (cut == std::string_view::npos || cut == 0) return ENAMETOOLONG;  // one huge name
    piece.assign(rest.substr(0, cut));
    const int fd = ::openat(dirFd, piece.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno;
    dir.Reset(fd);
    dirFd = fd;
    rest.remove_prefix(cut);
    while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  }
  const int fd = rest.size() == path.size() ? OpenAt(dirFd, path.c_str(), flags)
                                            : OpenAt(dirFd, std::string(rest).c_str(), flags);
  if (fd < 0) return errno;
  out.Reset(fd);
  return 0;
}

// OpenAt beneath `dir`: no symbolic link is followed on the way.
int OpenBeneath(int dir, const std::string& relative, int flags, ScopedFd& out) {
  int fd = pax::tools::OpenBeneath(dir, relative, flags);
  if (fd < 0 && errno == EPERM && (flags & O_NOATIME) != 0)
    fd = pax::tools::OpenBeneath(dir, relative, flags & ~O_NOATIME);
  if (fd < 0) return errno;
  out.Reset(fd);
  return 0;
}

// Keeps only regular files. O_NONBLOCK, needed so that opening a FIFO or a
// device never blocks, has no effect on reads of a regular file, so it stays.
orn::result_t AcceptRegular(const ScopedFd& fd, struct stat& st) {
  if (::fstat(fd.Get(), &st) != 0) return orn::ResultFromErrno(errno);
  if (S_ISDIR(st.st_mode)) return orn::ResultFromErrno(EISDIR);
  if (!S_ISREG(st.st_mode)) return orn::errors::kNotSupported;
  return orn::errors::kOk;
}

class FileFactory final : public orn::SimpleObject<orn::IFileFactory, orn::IFileFactoryAt> {
 public:
  orn::result_t CreateFile(const char16_t* path, std::uint32_t accessMask, std::uint32_t,
                           std::uint32_t disposition, std::uint32_t, orn::IIO** io) override {
    return Create(AT_FDCWD, path, accessMask, disposition, io);
  }
  orn::result_t CreateFileAt(int directoryFd, const char16_t* relativePath,
                             std::uint32_t accessMask, std::uint32_t, std::uint32_t disposition,
                             std::uint32_t, orn::IIO** io) override {
    if (directoryFd < 0) {
      if (io) *io = nullptr;
      return orn::ResultFromErrno(EBADF);
    }
    return Create(directoryFd, relativePath, accessMask, disposition, io);
  }

 private:
  // `dir` AT_FDCWD: `path` as given; otherwise beneath `dir`.
  static orn::result_t Create(int dir, const char16_t* path, std::uint32_t accessMask,
                              std::uint32_t disposition, orn::IIO** io) {
    if (!io) return orn::errors::kInvalidArgument;
    *io = nullptr;
    if (!path) return orn::errors::kInvalidArgument;
    if (accessMask != orn::file::kAccessRead || disposition != orn::file::kOpenExisting)
      return orn::errors::kNotSupported;
    try {
      const std::string narrow = orn::text::WideToNarrow(path);
      ScopedFd fd;
      const int err = dir == AT_FDCWD ? OpenPath(narrow, kOpenFlags, fd)
                                      : OpenBeneath(dir, narrow, kOpenFlags, fd);
      if (err != 0) return orn::ResultFromErrno(err);
      struct stat st {};
      if (const orn::result_t r = AcceptRegular(fd, st); ORN_FAILED(r)) return r;
      *io = orn::MakeSimple<FileIO>(std::move(fd), st).Detach();
      return orn::errors::kOk;
    } catch (...) {
      return orn::ExceptionToResult(nullptr, "file_factory\t");
    }
  }
};

}  // namespace

orn::result_t CreateFileFactory(orn::RefPtr<orn::IFileFactory>& out) {
  try {
    out = orn::MakeSimple<FileFactory>();
    return orn::errors::kOk;
  } catch (...) {
    return orn::ExceptionToResult(nullptr, "file_factory\t");
  }
}

}  // namespace arvo::host
