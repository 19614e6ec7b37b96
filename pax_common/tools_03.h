// File status and file-system tests for paths of any length.
//
// Paths longer than the kernel's PATH_MAX (4096 bytes with its NUL) are
// reached by opening their directory prefixes piece by piece with openat and
// finishing relative to the last descriptor; every descriptor opened on the
// way is closed before returning. None of these functions throws; failures
// are errno values converted with orn::ResultFromErrno, except:
//   - the working buffer cannot be allocated: errors::kOutOfMemory;
//   - a 4096-byte piece of the path holds no '/': errors::kFileNotFound.
// Thread-safe (no shared state; the current directory is only read).
#pragma once

#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <string_view>

#include "orn/result.h"
#include "orn/types.h"

namespace pax::tools {

// Longest path handed to the kernel in one piece.
inline constexpr std::size_t kMaxPathPiece = 4095;

// lstat semantics (fstatat with AT_SYMLINK_NOFOLLOW) for a path of any
// length: paths up to 4095 bytes take one fstatat relative to AT_FDCWD.
orn::result_t LStat(const NativePath& path, struct stat& st) noexcept;

// What LStatX reports of one object.
struct ObjectStatus {
  struct stat st {};          // as lstat fills it
  bool hasBirthTime = false;  // the file system records a birth time
  timespec birthTime{};
  bool hasMountId = false;  // the kernel tells the mount the object was reached through
  std::uint64_t mountId = 0;
};

// lstat semantics for a path of any length, taken with statx so that the
// birth time and the mount id come with the status (where the kernel and the
// file system give them; a kernel without statx falls back to fstatat and
// reports neither). Automounts are not triggered, as with lstat.
orn::result_t LStatX(const NativePath& path, ObjectStatus& status) noexcept;

// The same for `relative` beneath `dirFd`, resolved as LStatBeneath does
// (pax_common/beneath.h): 0, or -1 with errno set.
int LStatXBeneath(int dirFd, std::string_view relative, ObjectStatus& status) noexcept;

// The same as a C-style call: 0 on success, -1 with errno set on failure
// (ENOMEM, ENOENT for a piece without '/', or the failing call's errno).
int LStatFile(const NativePath& path, struct stat* st) noexcept;

// statfs (follows a final symbolic link) for a path of any length.
orn::result_t StatFs(const NativePath& path, struct statfs& fs) noexcept;

// lgetxattr for a path of any length: 0 or more bytes as lgetxattr
// returns them, or -1 with errno set. Long paths go through the walk's
// directory descriptor in /proc/self/fd.
ssize_t LGetXattr(const NativePath& path, const char* name, void* value, std::size_t size) noexcept;

// True for the magic numbers of proc (0x9FA0), sysfs (0x62656572) and
// usbdevfs (0x9FA2): pseudo file systems whose files are not recorded.
bool IsPseudoFileSystemMagic(std::uint64_t magic) noexcept;

// Sets `pseudo` from the magic number of the file system holding `path`.
// A failing statfs is returned (and `pseudo` left unchanged).
orn::result_t IsPseudoFileSystem(const NativePath& path, bool& pseudo) noexcept;

}  // namespace pax::tools

namespace orn::filesystem {

// The object's type bits (st_mode & 0xF000; 0x4000 directory, 0x8000
// regular file, ...) from LStat: a final symbolic link is reported as a
// link. A missing object yields errors::kFileNotFound (ENOENT).
result_t GetFileType(const pax::NativePath& path, std::uint32_t& fileType) noexcept;

}  // namespace orn::filesystem
