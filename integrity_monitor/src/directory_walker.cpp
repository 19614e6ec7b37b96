#include "directory_walker.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "pax_common/beneath.h"
#include "pax_common/tools_03.h"

namespace pax::fim {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NOATIME;

// openat that drops O_NOATIME when the kernel refuses it (EPERM: the caller
// neither owns the directory nor holds CAP_FOWNER).
int OpenAtNoAtime(int dir, const char* path, int flags) {
  const int fd = openat(dir, path, flags);
  if (fd >= 0 || errno != EPERM || (flags & O_NOATIME) == 0) return fd;
  return openat(dir, path, flags & ~O_NOATIME);
}
constexpr std::size_t kMinStreams = 4;
constexpr std::size_t kMaxStreams = 256;

// Owns a descriptor unless it is AT_FDCWD.
class Fd {
 public:
  Fd() = default;
  ~Fd() { Reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  void Reset(int fd = AT_FDCWD) noexcept {
    if (m_fd >= 0) close(m_fd);
    m_fd = fd;
  }
  int Get() const noexcept { return m_fd; }

 private:
  int m_fd = AT_FDCWD;
};

// A descriptor of the directory at `path`, of any length, without following
// a final symbolic link; -1 with errno set on failure. Paths past 4095 bytes
// are reached piece by piece, each piece cut at its last '/'.
int OpenDirectoryPath(const NativePath& path) {
  if (path.size() <= tools::kMaxPathPiece) return OpenAtNoAtime(AT_FDCWD, path.c_str(), kDirFlags);
  Fd base;
  std::size_t pos = 0;
  while (path.size() - pos > tools::kMaxPathPiece) {
    const std::string_view piece(path.data() + pos, tools::kMaxPathPiece + 1);
    const std::size_t slash = piece.rfind('/');
    if (slash == std::string_view::npos || slash == 0) {
      errno = ENAMETOOLONG;
      return -1;
    }
    const std::string prefix(piece.substr(0, slash));
    const int fd = openat(base.Get(), prefix.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    base.Reset(fd);
    pos += slash + 1;
  }
  return OpenAtNoAtime(base.Get(), path.c_str() + pos, kDirFlags);
}

void JoinPath(const NativePath& directory, std::string_view name, NativePath& out) {
  out.assign(directory);
  if (!out.empty() && out.back() != '/') out.push_back('/');
  out.append(name);
}

bool IsDotOrDotDot(std::string_view name) { return name == "." || name == ".."; }

}  // namespace

DirectoryWalker::DirectoryWalker(std::size_t maxOpenStreams)
    : m_maxOpenStreams(maxOpenStreams ? std::max<std::size_t>(maxOpenStreams, 1)
                                      : DefaultMaxOpenStreams()) {}

DirectoryWalker::~DirectoryWalker() { Close(); }

std::size_t DirectoryWalker::DefaultMaxOpenStreams() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kMaxStreams;
  return std::clamp<std::size_t>(limit.rlim_cur / 4, kMinStreams, kMaxStreams);
}

result_t DirectoryWalker::Open(const NativePath& root, Mount mount) {
  Close();
  m_failedDirectory.clear();
  const int fd = OpenDirectoryPath(root);
  if (fd < 0) return orn::ResultFromErrno(errno);
  std::unique_ptr<DIR, DirCloser> dir(fdopendir(fd));
  if (!dir) {
    const int err = errno;
    close(fd);
    return orn::ResultFromErrno(err);
  }
  m_rootFd = openat(fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (m_rootFd < 0) return orn::ResultFromErrno(errno);
  m_root = root;
  return Push(root, mount, std::move(dir));
}

const NativePath& DirectoryWalker::Directory() const {
  return m_stack.empty() ? m_root : m_stack.back().path;
}

int DirectoryWalker::DirectoryFd() const {
  return m_stack.empty() || !m_stack.back().dir ? -1 : dirfd(m_stack.back().dir.get());
}

bool RelativeBelow(const NativePath& directory, const NativePath& path,
                   std::string_view& relative) {
  if (path.size() <= directory.size() || path.compare(0, directory.size(), directory) != 0)
    return false;
  std::size_t start = directory.size();
  if (directory.empty() || directory.back() != '/') {
    if (path[start] != '/') return false;
    ++start;
  }
  relative = std::string_view(path).substr(start);
  return !relative.empty();
}

bool DirectoryWalker::BelowRoot(const NativePath& path, std::string_view& relative) const {
  return m_rootFd >= 0 && RelativeBelow(m_root, path, relative);
}

int DirectoryWalker::OpenBelowRoot(const NativePath& path) const {
  std::string_view relative;
  if (!BelowRoot(path, relative)) {
    errno = EXDEV;
    return -1;
  }
  const int fd = tools::OpenBeneath(m_rootFd, relative, kDirFlags);
  if (fd >= 0 || errno != EPERM) return fd;
  return tools::OpenBeneath(m_rootFd, relative, kDirFlags & ~O_NOATIME);
}

result_t DirectoryWalker::Push(NativePath path, Mount mount, std::unique_ptr<DIR, DirCloser> dir) {
  Level& level = m_stack.emplace_back();
  level.path = std::move(path);
  level.mount = mount;
  level.dir = std::move(dir);
  ++m_openStreams;
  return orn::errors::kOk;
}

result_t DirectoryWalker::Next(Entry& entry) {
  while (!m_stack.empty()) {
    Level& top = m_stack.back();
    std::string_view name;
    unsigned char type = DT_UNKNOWN;
    if (top.dir) {
      errno = 0;
      const dirent64* de = readdir64(top.dir.get());
      if (!de) {
        const int err = errno;
        // ENOENT: the directory was removed while being read; it has no
        // more entries, which is not an error of the walk.
        if (err != 0 && err != ENOENT) {
          m_failedDirectory = top.path;
          return orn::ResultFromErrno(err);
        }
        --m_openStreams;
        m_stack.pop_back();
        continue;
      }
      name = de->d_name;
      type = de->d_type;
    } else {
      if (top.next == top.spilled.size()) {
        const int err = top.spillErrno;
        if (err != 0) m_failedDirectory = top.path;
        m_stack.pop_back();
        if (err != 0) return orn::ResultFromErrno(err);
        continue;
      }
      const SpilledEntry& spilled = top.spilled[top.next++];
      name = spilled.name;
      type = spilled.type;
    }
    if (IsDotOrDotDot(name)) continue;
    JoinPath(top.path, name, entry.path);
    entry.isDirectory = ResolveIsDirectory(top, std::string(name), type, entry.path);
    entry.isRegularFile = type == DT_REG;
    entry.directoryMountKnown = top.mount.known;
    entry.directoryMount = top.mount.id;
    return orn::errors::kOk;
  }
  return orn::errors::kFalse;
}

bool DirectoryWalker::ResolveIsDirectory(const Level& level, const std::string& name,
                                         unsigned char type, const NativePath& path) const {
  if (type != DT_UNKNOWN) return type == DT_DIR;
  struct stat st {};
  std::string_view relative;
  const bool ok =
      level.dir ? fstatat(dirfd(level.dir.get()), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0
                : BelowRoot(path, relative) && tools::LStatBeneath(m_rootFd, relative, st) == 0;
  return ok && S_ISDIR(st.st_mode);
}

result_t DirectoryWalker::Enter(const Entry& entry, Mount mount) {
  if (m_stack.empty()) return orn::errors::kInvalidState;
  Level& top = m_stack.back();
  int fd = -1;
  if (top.dir) {
    const std::size_t slash = entry.path.rfind('/');
    const char* name = entry.path.c_str() + (slash == NativePath::npos ? 0 : slash + 1);
    fd = OpenAtNoAtime(dirfd(top.dir.get()), name, kDirFlags);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
      // Out of descriptors despite the bound (someone else holds many):
      // give up this level's stream and open beneath the root.
      Spill(top);
      fd = OpenBelowRoot(entry.path);
    }
  } else {
    fd = OpenBelowRoot(entry.path);
  }
  if (fd < 0) return orn::ResultFromErrno(errno);
  std::unique_ptr<DIR, DirCloser> dir(fdopendir(fd));
  if (!dir) {
    const int err = errno;
    close(fd);
    return orn::ResultFromErrno(err);
  }
  if (m_openStreams >= m_maxOpenStreams && top.dir) Spill(top);
  return Push(entry.path, mount, std::move(dir));
}

void DirectoryWalker::Spill(Level& level) {
  if (!level.dir) return;
  for (;;) {
    errno = 0;
    const dirent64* de = readdir64(level.dir.get());
    if (!de) {
      const int err = errno;
      if (err != 0 && err != ENOENT) level.spillErrno = err;
      break;
    }
    if (IsDotOrDotDot(de->d_name)) continue;
    level.spilled.push_back({de->d_name, de->d_type});
  }
  level.dir.reset();
  --m_openStreams;
}

void DirectoryWalker::Close() noexcept {
  m_stack.clear();
  m_openStreams = 0;
  if (m_rootFd >= 0) close(m_rootFd);
  m_rootFd = -1;
  m_root.clear();
}

}  // namespace pax::fim
