#include "host/watch/fanotify_resolver.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace arvo::host {
namespace {

// Past this many cached directories the cache starts again: paths are cheap
// to resolve again while the directories exist.
constexpr std::size_t kMaxCachedPaths = 1 << 16;

}  // namespace

bool IsAtOrBelow(const std::string& path, const std::string& root) {
  if (path.compare(0, root.size(), root) != 0) return false;
  return path.size() == root.size() || root == "/" || path[root.size()] == '/';
}

std::uint64_t FileSystemIdOf(int fd) {
  struct statfs st {};
  if (::fstatfs(fd, &st) != 0) return 0;
  std::int32_t val[2];
  static_assert(sizeof val == sizeof st.f_fsid);
  std::memcpy(val, &st.f_fsid, sizeof val);
  return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(val[0])) << 32) |
         static_cast<std::uint32_t>(val[1]);
}

void FanotifyResolver::AddFileSystem(std::uint64_t fsid, std::string directory) {
  m_mounts.try_emplace(fsid, std::move(directory));
}

std::vector<std::uint64_t> FanotifyResolver::DropUnmounted() {
  std::vector<std::uint64_t> gone;
  for (auto it = m_mounts.begin(); it != m_mounts.end();) {
    const ScopedFd fd(::open(it->second.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (fd.Valid() && FileSystemIdOf(fd.Get()) == it->first) {
      ++it;
      continue;
    }
    gone.push_back(it->first);
    it = m_mounts.erase(it);
  }
  return gone;
}

std::string FanotifyResolver::KeyOf(const FanotifyDirectory& directory) {
  std::string key(reinterpret_cast<const char*>(&directory.fsid), sizeof directory.fsid);
  key.append(reinterpret_cast<const char*>(&directory.handleType), sizeof directory.handleType);
  return key + directory.handle;
}

std::optional<std::string> FanotifyResolver::Open(const FanotifyDirectory& directory) const {
  const auto mount = m_mounts.find(directory.fsid);
  if (mount == m_mounts.end()) return std::nullopt;
  const ScopedFd mountFd(::open(mount->second.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!mountFd.Valid() || FileSystemIdOf(mountFd.Get()) != directory.fsid) return std::nullopt;
  std::vector<char> storage(sizeof(file_handle) + directory.handle.size());
  auto* handle = reinterpret_cast<file_handle*>(storage.data());
  handle->handle_bytes = static_cast<unsigned>(directory.handle.size());
  handle->handle_type = directory.handleType;
  std::memcpy(storage.data() + sizeof(file_handle), directory.handle.data(),
              directory.handle.size());
  const ScopedFd fd(::open_by_handle_at(mountFd.Get(), handle, O_PATH | O_CLOEXEC));
  if (!fd.Valid()) return std::nullopt;
  const std::string path = PathOfDescriptor(fd.Get());
  // An unlinked directory still open reads "<path> (deleted)": not a path.
  static constexpr char kDeleted[] = " (deleted)";
  if (path.empty() || path[0] != '/' ||
      (path.size() > sizeof kDeleted - 1 &&
       path.compare(path.size() - (sizeof kDeleted - 1), std::string::npos, kDeleted) == 0)) {
    return std::nullopt;
  }
  return path;
}

std::optional<std::string> FanotifyResolver::PathOf(const FanotifyDirectory& directory) {
  const std::string key = KeyOf(directory);
  if (m_resolvedInBatch.count(key) != 0) {
    const auto known = m_paths.find(key);
    if (known != m_paths.end()) return known->second;
  }
  if (std::optional<std::string> path = Open(directory)) {
    Remember(directory, *path);
    m_resolvedInBatch.insert(key);
    return path;
  }
  const auto cached = m_paths.find(key);
  if (cached == m_paths.end()) return std::nullopt;
  return cached->second;
}

void FanotifyResolver::Remember(const FanotifyDirectory& directory, std::string path) {
  if (m_paths.size() >= kMaxCachedPaths) {
    m_paths.clear();
    m_resolvedInBatch.clear();
  }
  m_paths[KeyOf(directory)] = std::move(path);
}

void FanotifyResolver::Forget(const std::string& oldPath) {
  std::erase_if(m_paths, [&](const auto& entry) { return IsAtOrBelow(entry.second, oldPath); });
}

std::string PathOfDescriptor(int fd) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  std::string path(PATH_MAX, '\0');
  const ssize_t n = ::readlink(link, path.data(), path.size());
  if (n <= 0 || static_cast<std::size_t>(n) >= path.size()) return {};
  path.resize(static_cast<std::size_t>(n));
  return path;
}

}  // namespace arvo::host
