#include "file_snapshot.h"

#include <algorithm>
#include <iomanip>
#include <ios>

#include "pax/enumerations.h"

namespace pax::fim {

FileSnapshot::FileSnapshot(const NativePath& path, const struct stat& st, const Sha256Digest& hash,
                           const orn::types::blob_t& aclBytes)
    : ino(st.st_ino),
      dev(st.st_dev),
      nlinks(st.st_nlink),
      size(st.st_size),
      ctime_sec(st.st_ctim.tv_sec),
      ctime_nsec(st.st_ctim.tv_nsec),
      atime_sec(st.st_atim.tv_sec),
      atime_nsec(st.st_atim.tv_nsec),
      mtime_sec(st.st_mtim.tv_sec),
      mtime_nsec(st.st_mtim.tv_nsec),
      attr(st.st_mode),
      uid(st.st_uid),
      gid(st.st_gid),
      sha256(hash),
      acl(aclBytes) {
  // Room for the terminator and a second link's path, which the row's
  // completion appends.
  paths.reserve(path.size() * 2 + 2);
  paths.assign(path.begin(), path.end());
}

bool FileSnapshot::IsAbsent() const {
  return ino == 0 && dev == 0 && nlinks == 0 && size == 0 && ctime_sec == 0 && ctime_nsec == 0 &&
         atime_sec == 0 && atime_nsec == 0 && mtime_sec == 0 && mtime_nsec == 0 && attr == 0 &&
         uid == 0 && gid == 0 && paths.empty();
}

std::uint32_t FileTypeFromMode(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return object_type::kDirectory;
    case S_IFCHR:
      return object_type::kCharacterDevice;
    case S_IFBLK:
      return object_type::kBlockDevice;
    case S_IFIFO:
      return object_type::kNamedPipe;
    case S_IFLNK:
      return object_type::kSymbolicLink;
    case S_IFSOCK:
      return object_type::kSocket;
    default:
      return object_type::kFile;
  }
}

std::set<NativePath> SplitPaths(const orn::types::blob_t& paths) {
  std::set<NativePath> out;
  auto begin = paths.begin();
  while (begin != paths.end()) {
    const auto end = std::find(begin, paths.end(), std::uint8_t{0});
    out.emplace(begin, end);
    if (end == paths.end()) break;
    begin = end + 1;
  }
  return out;
}

std::string ModeText(std::uint32_t mode) {
  char type = '-';
  switch (mode & S_IFMT) {
    case S_IFDIR:
      type = 'd';
      break;
    case S_IFCHR:
      type = 'c';
      break;
    case S_IFBLK:
      type = 'b';
      break;
    case S_IFIFO:
      type = 'p';
      break;
    case S_IFLNK:
      type = 'l';
      break;
    case S_IFSOCK:
      type = 's';
      break;
    default:
      break;
  }
  std::string text(1, type);
  // Each triplet: read, write, execute bits, and the special bit shown in
  // the execute place ('s'/'S' for set-id, 't'/'T' for sticky).
  struct Triplet {
    std::uint32_t r, w, x, special;
    char shown;
  };
  static constexpr Triplet kTriplets[] = {{S_IRUSR, S_IWUSR, S_IXUSR, S_ISUID, 's'},
                                          {S_IRGRP, S_IWGRP, S_IXGRP, S_ISGID, 's'},
                                          {S_IROTH, S_IWOTH, S_IXOTH, S_ISVTX, 't'}};
  for (const Triplet& t : kTriplets) {
    text += (mode & t.r) ? 'r' : '-';
    text += (mode & t.w) ? 'w' : '-';
    const bool x = mode & t.x;
    if (mode & t.special)
      text += x ? t.shown : static_cast<char>(t.shown - 'a' + 'A');
    else
      text += x ? 'x' : '-';
  }
  return text;
}

std::ostream& operator<<(std::ostream& os, const FileSnapshot& snap) {
  const auto nanos = [&os](std::int64_t sec, std::int64_t nsec) -> std::ostream& {
    const char fill = os.fill('0');
    os << sec << '.' << std::setw(9) << nsec;
    os.fill(fill);
    return os;
  };
  os << "ino: " << snap.ino << ", dev: " << snap.dev << ", perm: " << ModeText(snap.attr)
     << ", uid: " << snap.uid << ", gid: " << snap.gid << ", ctime: ";
  nanos(snap.ctime_sec, snap.ctime_nsec) << ", atime: ";
  nanos(snap.atime_sec, snap.atime_nsec) << ", mtime: ";
  nanos(snap.mtime_sec, snap.mtime_nsec) << ", sha: ";
  const std::ios_base::fmtflags flags = os.flags();
  const char fill = os.fill('0');
  os << std::hex;
  for (const std::uint8_t b : snap.sha256) os << std::setw(2) << static_cast<unsigned>(b);
  os.flags(flags);
  os.fill(fill);
  os << ", hardlinks: ";
  for (const NativePath& path : SplitPaths(snap.paths)) os << path << ", ";
  return os;
}

orn::TraceStream& operator<<(orn::TraceStream& s, const FileSnapshot& snap) {
  s.Os() << snap;
  return s;
}

}  // namespace pax::fim
