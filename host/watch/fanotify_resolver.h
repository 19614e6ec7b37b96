// Turns the directory handles of fanotify records into paths.
//
// A handle is opened against a descriptor on its file system
// (open_by_handle_at, which needs CAP_DAC_READ_SEARCH) and the path is the
// one the kernel gives for that descriptor. That descriptor is opened for
// each resolution, never kept: a descriptor held open would keep the file
// system from being unmounted. Paths are cached by handle, so a
// directory that is gone by the time its records are read still has the path
// it had when it was last seen; a directory renamed or moved drops the
// cached paths below its former place.
//
// Not thread-safe: the fanotify provider calls it under its own lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/util/scoped_fd.h"
#include "host/watch/fanotify_record.h"

namespace arvo::host {

class FanotifyResolver {
 public:
  // Registers `directory`, a directory on file system `fsid`, as the way to
  // open that file system's handles. The first one registered wins.
  void AddFileSystem(std::uint64_t fsid, std::string directory);
  bool Knows(std::uint64_t fsid) const { return m_mounts.count(fsid) != 0; }
  std::size_t FileSystems() const { return m_mounts.size(); }
  // Drops the file systems whose registered directory is no longer on them
  // (unmounted) and returns their ids.
  std::vector<std::uint64_t> DropUnmounted();

  // The directory's current path, or the cached one when it can no longer be
  // opened; empty when neither is known. A handle resolved once since the
  // last NewBatch() is not opened again: its path stays true until a move
  // or deletion at or above it, which Forget() reports.
  std::optional<std::string> PathOf(const FanotifyDirectory& directory);

  // The records of one read from the fanotify descriptor follow.
  void NewBatch() { m_resolvedInBatch.clear(); }

  // Records `path` as the directory's path, as if it had been resolved.
  void Remember(const FanotifyDirectory& directory, std::string path);

  // A directory moved away from `oldPath` (or deleted there): cached paths at
  // or below it are no longer true.
  void Forget(const std::string& oldPath);

 private:
  static std::string KeyOf(const FanotifyDirectory& directory);
  std::optional<std::string> Open(const FanotifyDirectory& directory) const;

  std::unordered_map<std::uint64_t, std::string> m_mounts;
  std::unordered_map<std::string, std::string> m_paths;  // handle key -> path
  std::unordered_set<std::string> m_resolvedInBatch;     // keys opened since NewBatch()
};

// The id fanotify gives the file system of `fd` (statfs f_fsid), or 0.
std::uint64_t FileSystemIdOf(int fd);

// The path the kernel gives for the descriptor `fd` (/proc/self/fd), or
// empty when it cannot be read.
std::string PathOfDescriptor(int fd);

// True when `path` is `root` or lies below it.
bool IsAtOrBelow(const std::string& path, const std::string& root);

}  // namespace arvo::host
