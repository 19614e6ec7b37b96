#include "file_snapshot.h"

#include <gtest/gtest.h>

#include <sstream>

namespace pax::fim {
namespace {

orn::types::blob_t Blob(const std::string& bytes) { return {bytes.begin(), bytes.end()}; }

TEST(FileSnapshotTest, TextFormShowsEveryFieldInOrder) {
  FileSnapshot snap;
  snap.ino = 12;
  snap.dev = 34;
  snap.attr = S_IFREG | 0640;
  snap.uid = 1000;
  snap.gid = 100;
  snap.ctime_sec = 5;
  snap.ctime_nsec = 42;
  snap.atime_sec = 6;
  snap.atime_nsec = 0;
  snap.mtime_sec = 7;
  snap.mtime_nsec = 123456789;
  snap.sha256[0] = 0xab;
  snap.sha256[31] = 0x01;
  snap.paths = Blob(std::string("/b\0/a\0", 6));
  std::ostringstream os;
  os << snap;
  EXPECT_EQ(os.str(),
            "ino: 12, dev: 34, perm: -rw-r-----, uid: 1000, gid: 100, ctime: 5.000000042, "
            "atime: 6.000000000, mtime: 7.123456789, sha: ab" +
                std::string(60, '0') + "01, hardlinks: /a, /b, ");
  // The stream's own formatting is left as it was.
  os.str("");
  os << 255;
  EXPECT_EQ(os.str(), "255");
}

TEST(FileSnapshotTest, AbsentSnapshotHasNoPathAndZeroDigestText) {
  FileSnapshot snap;
  EXPECT_TRUE(snap.IsAbsent());
  std::ostringstream os;
  os << snap;
  EXPECT_EQ(os.str(),
            "ino: 0, dev: 0, perm: ----------, uid: 0, gid: 0, ctime: 0.000000000, atime: "
            "0.000000000, mtime: 0.000000000, sha: " +
                std::string(64, '0') + ", hardlinks: ");
  snap.paths = Blob("/x");
  EXPECT_FALSE(snap.IsAbsent());
}

TEST(FileSnapshotTest, PathsSplitIntoASortedSetIncludingAnUnterminatedTail) {
  EXPECT_TRUE(SplitPaths({}).empty());
  EXPECT_EQ(SplitPaths(Blob(std::string("/z\0/a\0/z\0/m", 11))),
            (std::set<NativePath>{"/a", "/m", "/z"}));
}

TEST(FileSnapshotTest, ModeTextAndTypeCodes) {
  EXPECT_EQ(ModeText(S_IFDIR | 0755), "drwxr-xr-x");
  EXPECT_EQ(ModeText(S_IFLNK | 0777), "lrwxrwxrwx");
  EXPECT_EQ(ModeText(S_IFREG | S_ISUID | S_ISGID | S_ISVTX | 0644), "-rwSr-Sr-T");
  EXPECT_EQ(ModeText(S_IFREG | S_ISUID | S_ISVTX | 0755), "-rwsr-xr-t");
  EXPECT_EQ(ModeText(S_IFCHR), "c---------");
  const std::pair<std::uint32_t, std::uint32_t> types[] = {
      {S_IFREG, 0}, {S_IFDIR, 1}, {S_IFCHR, 2},  {S_IFBLK, 3},
      {S_IFIFO, 4}, {S_IFLNK, 5}, {S_IFSOCK, 6}, {0, 0}};
  for (const auto& [mode, code] : types) EXPECT_EQ(FileTypeFromMode(mode | 0644), code) << mode;
}

}  // namespace
}  // namespace pax::fim
