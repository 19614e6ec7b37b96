// One file system object's recorded state inside one scan scope, as stored
// in a row of "Baseline" or "CurrentSnaphot".
//
// `paths` holds every known hard-link path: each path's bytes followed by
// one NUL, newest first. A reader splits it at NULs into a sorted set
// (duplicates collapse; an unterminated last piece still counts). A freshly
// built snapshot holds its one path without the NUL: the terminator is added
// when the row is completed from the database (SnapshotBuilder).
//
// Plain value; not thread-safe beyond that.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <set>
#include <string>

#include "framework/trace.h"
#include "orn/types.h"
#include "pax/integrity_monitor_publisher.h"

namespace pax::fim {

struct FileSnapshot {
  FileSnapshot() = default;
  // Copies the status fields, the digest and the ACL bytes; `paths` = the
  // path's bytes (no NUL).
  FileSnapshot(const NativePath& path, const struct stat& st, const Sha256Digest& hash,
               const orn::types::blob_t& acl);

  // True when every numeric field is zero and `paths` is empty: the side of
  // a comparison row where the object does not exist.
  bool IsAbsent() const;

  std::uint64_t ino = 0;
  std::uint64_t dev = 0;
  std::uint64_t nlinks = 0;
  std::int64_t size = 0;
  std::int64_t ctime_sec = 0;
  std::int64_t ctime_nsec = 0;
  std::int64_t atime_sec = 0;
  std::int64_t atime_nsec = 0;
  std::int64_t mtime_sec = 0;
  std::int64_t mtime_nsec = 0;
  std::uint32_t attr = 0;  // st_mode
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  Sha256Digest sha256{};     // all zero when no digest was taken
  orn::types::blob_t acl;    // raw "system.posix_acl_access"; empty when none
  orn::types::blob_t paths;  // see above
  // Birth time (statx), 0.0 when the file system records none. It tells a
  // reused inode number from the object a baseline row describes
  // (SnapshotComparer); not in the text form.
  std::int64_t btime_sec = 0;
  std::int64_t btime_nsec = 0;

  bool HasBirthTime() const { return btime_sec != 0 || btime_nsec != 0; }

  // Raw "system.posix_acl_default" of a directory: the ACL its new entries
  // inherit. Empty when there is none and for every other file type;
  // std::nullopt when not known (a row written before the module recorded
  // it). Not in the text form.
  std::optional<orn::types::blob_t> acl_default{std::in_place};
};

// File object type code of a mode (pax::object_type): regular file 0,
// directory 1, character device 2, block device 3, FIFO 4, symbolic link 5,
// socket 6; any other type bits also 0.
std::uint32_t FileTypeFromMode(std::uint32_t mode);

// The paths of a `paths` blob as a sorted set.
std::set<NativePath> SplitPaths(const orn::types::blob_t& paths);

// ls-style mode text: type character ('-', 'd', 'c', 'b', 'p', 'l', 's')
// and three rwx triplets ('-' for a missing permission; set-user-ID,
// set-group-ID and sticky bits show as 's'/'S' and 't'/'T' in the execute
// place, as ls does).
std::string ModeText(std::uint32_t mode);

// The one-line text form used in traces and events:
// "ino: 1, dev: 2, perm: -rw-r--r--, uid: 0, gid: 0, ctime: 5.000000042,
// atime: ..., mtime: ..., sha: <64 hex digits>, hardlinks: /a, /b, "
// (each path followed by ", ").
std::ostream& operator<<(std::ostream& os, const FileSnapshot& snap);
orn::TraceStream& operator<<(orn::TraceStream& s, const FileSnapshot& snap);

}  // namespace pax::fim
