#include "pax_common/tools_03.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "pax_common/beneath.h"

namespace pax::tools {

namespace {

// The directory descriptor a walk has reached; AT_FDCWD until the first
// piece is opened, never closed in that state.
class WalkDir {
 public:
  WalkDir() = default;
  WalkDir(const WalkDir&) = delete;
  WalkDir& operator=(const WalkDir&) = delete;
  ~WalkDir() { Replace(AT_FDCWD); }

  int Get() const { return m_fd; }
  void Replace(int fd) {
    if (m_fd != AT_FDCWD) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd = AT_FDCWD;
};

// Opens the directory prefixes of `path`, limit + 1 bytes at a time, until
// at most `limit` bytes remain; `tail` receives that rest (relative to
// `dir`). A short path leaves `dir` at AT_FDCWD and `tail` the whole path.
orn::result_t WalkToTail(const NativePath& path, WalkDir& dir, std::string& tail,
                         std::size_t limit = kMaxPathPiece) {
  std::size_t pos = 0;
  std::string prefix;
  while (path.size() - pos > limit) {
    const std::string_view piece(path.data() + pos, limit + 1);
    const std::size_t cut = piece.rfind('/');
    if (cut == std::string_view::npos) return orn::errors::kFileNotFound;
    if (cut == 0 && pos != 0) {  // a doubled '/': nothing to open
      pos += 1;
      continue;
    }
    prefix.assign(cut == 0 ? std::string_view("/") : piece.substr(0, cut));
    const int fd = ::openat(dir.Get(), prefix.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return orn::ResultFromErrno(errno);
    dir.Replace(fd);
    pos += cut + 1;
  }
  // "." when the path ended with the last '/' cut.
  tail = pos < path.size() ? path.substr(pos) : std::string(".");
  return orn::errors::kOk;
}

}  // namespace

orn::result_t LStat(const NativePath& path, struct stat& st) noexcept {
  try {
    WalkDir dir;
    std::string tail;
    if (const orn::result_t r = WalkToTail(path, dir, tail); ORN_FAILED(r)) return r;
    if (::fstatat(dir.Get(), tail.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
      return orn::ResultFromErrno(errno);
    return orn::errors::kOk;
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
}

namespace {

constexpr unsigned kStatxMask = STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID;

void FromStatx(const struct statx& sx, ObjectStatus& status) {
  struct stat& st = status.st;
  st = {};
  st.st_dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
  st.st_ino = static_cast<ino_t>(sx.stx_ino);
  st.st_mode = sx.stx_mode;
  st.st_nlink = static_cast<nlink_t>(sx.stx_nlink);
  st.st_uid = sx.stx_uid;
  st.st_gid = sx.stx_gid;
  st.st_rdev = makedev(sx.stx_rdev_major, sx.stx_rdev_minor);
  st.st_size = static_cast<off_t>(sx.stx_size);
  st.st_blksize = static_cast<blksize_t>(sx.stx_blksize);
  st.st_blocks = static_cast<blkcnt_t>(sx.stx_blocks);
  st.st_atim = {sx.stx_atime.tv_sec, static_cast<long>(sx.stx_atime.tv_nsec)};
  st.st_mtim = {sx.stx_mtime.tv_sec, static_cast<long>(sx.stx_mtime.tv_nsec)};
  st.st_ctim = {sx.stx_ctime.tv_sec, static_cast<long>(sx.stx_ctime.tv_nsec)};
  // A zero birth time is what some file systems report for "unknown".
  status.hasBirthTime =
      (sx.stx_mask & STATX_BTIME) != 0 && (sx.stx_btime.tv_sec != 0 || sx.stx_btime.tv_nsec != 0);
  status.birthTime = status.hasBirthTime
                         ? timespec{sx.stx_btime.tv_sec, static_cast<long>(sx.stx_btime.tv_nsec)}
                         : timespec{};
  status.hasMountId = (sx.stx_mask & STATX_MNT_ID) != 0;
  status.mountId = status.hasMountId ? sx.stx_mnt_id : 0;
}

}  // namespace

orn::result_t LStatX(const NativePath& path, ObjectStatus& status) noexcept {
  try {
    WalkDir dir;
    std::string tail;
    if (const orn::result_t r = WalkToTail(path, dir, tail); ORN_FAILED(r)) return r;
    struct statx sx {};
    if (::statx(dir.Get(), tail.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, kStatxMask, &sx) ==
        0) {
      FromStatx(sx, status);
      return orn::errors::kOk;
    }
    if (errno != ENOSYS) return orn::ResultFromErrno(errno);
    status = ObjectStatus{};
    if (::fstatat(dir.Get(), tail.c_str(), &status.st, AT_SYMLINK_NOFOLLOW) != 0)
      return orn::ResultFromErrno(errno);
    return orn::errors::kOk;
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
}

int LStatXBeneath(int dirFd, std::string_view relative, ObjectStatus& status) noexcept {
  struct statx sx {};
  if (LStatxBeneath(dirFd, relative, kStatxMask, sx) == 0) {
    FromStatx(sx, status);
    return 0;
  }
  if (errno != ENOSYS) return -1;
  status = ObjectStatus{};
  return LStatBeneath(dirFd, relative, status.st);
}

int LStatFile(const NativePath& path, struct stat* st) noexcept {
  const orn::result_t r = LStat(path, *st);
  if (ORN_SUCCEEDED(r)) return 0;
  // The failing call's errno is still set; the walk's own failures set one.
  if (r == orn::errors::kOutOfMemory) errno = ENOMEM;
  const int err = orn::ErrnoFromResult(r);
  if (err != 0) errno = err;
  return -1;
}

orn::result_t StatFs(const NativePath& path, struct statfs& fs) noexcept {
  try {
    if (path.size() <= kMaxPathPiece) {
      if (::statfs(path.c_str(), &fs) != 0) return orn::ResultFromErrno(errno);
      return orn::errors::kOk;
    }
    WalkDir dir;
    std::string tail;
    if (const orn::result_t r = WalkToTail(path, dir, tail); ORN_FAILED(r)) return r;
    // statfs has no *at form: open the object itself as a path handle.
    const int fd = ::openat(dir.Get(), tail.c_str(), O_PATH | O_CLOEXEC);
    if (fd < 0) return orn::ResultFromErrno(errno);
    WalkDir object;
    object.Replace(fd);
    if (::fstatfs(fd, &fs) != 0) return orn::ResultFromErrno(errno);
    return orn::errors::kOk;
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
}

ssize_t LGetXattr(const NativePath& path, const char* name, void* value,
                  std::size_t size) noexcept {
  if (path.size() <= kMaxPathPiece) return ::lgetxattr(path.c_str(), name, value, size);
  try {
    // The xattr calls have no *at form. The walk stops short enough that the
    // directory's /proc/self/fd link plus the rest still fits in one piece;
    // the link is an intermediate component, so the final one is still not
    // followed.
    constexpr std::size_t kProcPrefix = 40;
    WalkDir dir;
    std::string tail;
    if (const orn::result_t r = WalkToTail(path, dir, tail, kMaxPathPiece - kProcPrefix);
        ORN_FAILED(r)) {
      const int err = orn::ErrnoFromResult(r);
      errno = err != 0 ? err : ENOENT;
      return -1;
    }
    std::string viaProc = "/proc/self/fd/";
    viaProc.append(std::to_string(dir.Get())).append(1, '/').append(tail);
    return ::lgetxattr(viaProc.c_str(), name, value, size);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

bool IsPseudoFileSystemMagic(std::uint64_t magic) noexcept {
  constexpr std::uint64_t kProcMagic = 0x9FA0;
  constexpr std::uint64_t kSysfsMagic = 0x62656572;
  constexpr std::uint64_t kUsbdevfsMagic = 0x9FA2;
  return magic == kProcMagic || magic == kSysfsMagic || magic == kUsbdevfsMagic;
}

orn::result_t IsPseudoFileSystem(const NativePath& path, bool& pseudo) noexcept {
  struct statfs fs {};
  if (const orn::result_t r = StatFs(path, fs); ORN_FAILED(r)) return r;
  pseudo = IsPseudoFileSystemMagic(static_cast<std::uint64_t>(fs.f_type));
  return orn::errors::kOk;
}

}  // namespace pax::tools

namespace orn::filesystem {

result_t GetFileType(const pax::NativePath& path, std::uint32_t& fileType) noexcept {
  struct stat st {};
  if (const result_t r = pax::tools::LStat(path, st); ORN_FAILED(r)) return r;
  fileType = st.st_mode & S_IFMT;
  return errors::kOk;
}

}  // namespace orn::filesystem
