// Resolution of paths beneath a directory descriptor that never passes
// through a symbolic link: what a walk uses so that a directory swapped for a
// link while it is walked cannot lead it out of its tree.
//
// A relative path is resolved from `dirFd` component by component:
//   - a symbolic link as an intermediate component fails with ELOOP;
//   - a final symbolic link is never followed: opened as the link itself
//     with O_PATH, ELOOP for any other open (ENOTDIR with O_DIRECTORY);
//     LStatBeneath reports the link;
//   - ".." anywhere and absolute paths fail with EXDEV (the path would leave
//     the directory); "." and empty components are skipped;
//   - paths of any length are accepted.
// The kernel does the work with openat2 (RESOLVE_BENEATH |
// RESOLVE_NO_SYMLINKS, Linux 5.6+); where openat2 is missing (ENOSYS, or
// refused by a seccomp filter) the same rules are applied by a walk of
// openat(O_PATH | O_NOFOLLOW) calls, one per component. Both give the same
// answers; the portable walk costs one call per component.
//
// The extended-attribute and statfs forms reach the final component through
// its directory's /proc/self/fd entry (those calls have no *at form), so
// they need /proc.
//
// All functions are thread-safe and never throw; failures are -1 with errno
// set, as the system calls they stand for. Descriptors returned are
// close-on-exec and owned by the caller.
#pragma once

#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace pax::tools {

// openat beneath `dirFd` with `flags` (O_NOFOLLOW and O_CLOEXEC are added).
int OpenBeneath(int dirFd, std::string_view relative, int flags) noexcept;

// fstatat(AT_SYMLINK_NOFOLLOW) of `relative` beneath `dirFd`: 0 or -1.
int LStatBeneath(int dirFd, std::string_view relative, struct stat& st) noexcept;

// statx(AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) of `relative` beneath `dirFd`
// for the fields of `mask`: 0 or -1.
int LStatxBeneath(int dirFd, std::string_view relative, unsigned mask, struct statx& sx) noexcept;

// lgetxattr of `relative` beneath `dirFd`, with lgetxattr's answers.
ssize_t LGetXattrBeneath(int dirFd, std::string_view relative, const char* name, void* value,
                         std::size_t size) noexcept;

// statfs of `relative` beneath `dirFd`: a final symbolic link is followed, as
// statfs does, intermediate components never are. 0 or -1.
int StatFsBeneath(int dirFd, std::string_view relative, struct statfs& fs) noexcept;

// Whether openat2 is used (probed once per process). Switching it off makes
// every call take the portable walk: for tests, and for kernels whose openat2
// misbehaves. The environment variable ARVO_FIM_NO_OPENAT2 (any value)
// switches it off at start.
bool KernelBeneathEnabled() noexcept;
void SetKernelBeneathEnabled(bool enabled) noexcept;

}  // namespace pax::tools
