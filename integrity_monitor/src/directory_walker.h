// Depth-first enumeration of a directory tree with an explicit stack of
// directory streams, for the on-demand task's area walk.
//
// The walker hands out the entries of the directory on top of its stack
// ("." and ".." left out); the caller decides which directory entries to
// enter (Enter pushes the entry just returned). Entries are never followed
// through symbolic links: a sub-directory is opened relative to its parent's
// stream with O_NOFOLLOW, so a directory swapped for a link between reading
// and opening fails to open instead of leading elsewhere. The walker also
// holds the root directory (reached through links, if its path has any) so
// that whatever is resolved below it is resolved beneath that descriptor,
// never through a link (pax_common/beneath.h).
//
// Deep trees: the number of open streams is bounded (by default a quarter of
// the process's file-descriptor limit, at most 256). When entering a
// directory would pass the bound, the stream below the new one is read to
// its end into memory and closed; its remaining entries are then handed out
// from memory, and directories among them are opened beneath the root. Memory thus grows with depth
// times the width of the spilled levels, never with the size of the tree, and no depth exhausts the
// descriptors.
//
// Directories are opened with O_NOATIME where the kernel allows it (the
// caller owns them, or may act for every owner): reading them does not
// change their access time, which the next scan would otherwise report.
//
// Each directory carries the mount id its caller gives (Open, Enter) and
// hands it out with each of its entries, so that the caller can tell an
// entry on another mount (a mount point) from one on its directory's.
//
// Not thread-safe: one walker belongs to one walk on one thread.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orn/result.h"
#include "orn/types.h"

namespace pax::fim {

// The mount a directory was reached through, when known.
struct DirectoryMount {
  bool known = false;
  std::uint64_t id = 0;
};

// True when `path` lies below `directory`; `relative` is then the rest of it
// after the directory and its '/' (never empty).
bool RelativeBelow(const NativePath& directory, const NativePath& path, std::string_view& relative);

class DirectoryWalker {
 public:
  using Mount = DirectoryMount;

  struct Entry {
    NativePath path;           // directory path, "/" (unless already there), name
    bool isDirectory = false;  // the entry itself, not what a link points to
    // A regular file as the directory reported it (no extra status call);
    // false when the directory did not say.
    bool isRegularFile = false;
    // The mount of the directory holding the entry, as given to Open/Enter.
    bool directoryMountKnown = false;
    std::uint64_t directoryMount = 0;
  };

  // `maxOpenStreams` 0 picks the default bound from RLIMIT_NOFILE.
  explicit DirectoryWalker(std::size_t maxOpenStreams = 0);
  ~DirectoryWalker();
  DirectoryWalker(const DirectoryWalker&) = delete;
  DirectoryWalker& operator=(const DirectoryWalker&) = delete;

  // Closes whatever is open and starts at `root` (which must be a
  // directory). Failure: errno of the open, as a result.
  [[nodiscard]] result_t Open(const NativePath& root, Mount mount = {});

  // The next entry: 0 with `entry` set; 1 when the walk is over (every
  // directory popped); a failure when reading a directory failed (errno as
  // a result, `failedDirectory` names it). An exhausted directory is popped
  // and its parent continued.
  [[nodiscard]] result_t Next(Entry& entry);

  // Pushes `entry` (a directory returned by the last Next) so that its
  // entries come next. Failure (errno as a result): nothing is pushed and
  // the walk goes on with the current directory.
  [[nodiscard]] result_t Enter(const Entry& entry, Mount mount = {});

  // Closes every stream and empties the stack.
  void Close() noexcept;

  // The directory whose entry the last Next returned, and its descriptor;
  // -1 when that directory's stream was spilled (or nothing is open).
  const NativePath& Directory() const;
  int DirectoryFd() const;
  // The root as opened, and a descriptor of it (-1 when nothing is open).
  const NativePath& Root() const { return m_root; }
  int RootFd() const { return m_rootFd; }
  // True when `path` lies below the root; `relative` is then the rest of
  // it after the root and its '/'.
  bool BelowRoot(const NativePath& path, std::string_view& relative) const;

  std::size_t Depth() const { return m_stack.size(); }
  std::size_t OpenStreams() const { return m_openStreams; }
  std::size_t MaxOpenStreams() const { return m_maxOpenStreams; }
  const NativePath& FailedDirectory() const { return m_failedDirectory; }

  // A quarter of the soft RLIMIT_NOFILE, between 4 and 256.
  static std::size_t DefaultMaxOpenStreams();

 private:
  struct DirCloser {
    void operator()(DIR* dir) const noexcept { closedir(dir); }
  };
  struct SpilledEntry {
    std::string name;
    unsigned char type;  // DT_* of readdir
  };
  struct Level {
    NativePath path;
    Mount mount;
    std::unique_ptr<DIR, DirCloser> dir;  // null once spilled
    std::vector<SpilledEntry> spilled;
    std::size_t next = 0;  // next spilled entry
    int spillErrno = 0;    // a read error met while spilling
  };

  result_t Push(NativePath path, Mount mount, std::unique_ptr<DIR, DirCloser> dir);
  // Reads the rest of `level` into memory and closes its stream.
  void Spill(Level& level);
  bool ResolveIsDirectory(const Level& level, const std::string& name, unsigned char type,
                          const NativePath& path) const;
  // A directory below the root, opened beneath the root's descriptor.
  int OpenBelowRoot(const NativePath& path) const;

  std::size_t m_maxOpenStreams;
  std::size_t m_openStreams = 0;
  std::deque<Level> m_stack;  // grows at the back; the back is being read
  NativePath m_root;
  int m_rootFd = -1;  // O_PATH, owned
  NativePath m_failedDirectory;
};

}  // namespace pax::fim
