#include "area_resolver.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/temp_tree.h"

namespace pax::fim {
namespace {

using arvo::test::TempDir;

ino_t InodeOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st.st_ino;
}

// Swaps directory `path` for a link to `target`, as an attacker would.
void SwapForLink(const std::string& path, const std::string& target) {
  ASSERT_EQ(::rename(path.c_str(), (path + ".away").c_str()), 0);
  ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
}

// Next until the entry at `path`.
void NextUntil(DirectoryWalker& walker, const std::string& path, DirectoryWalker::Entry& entry) {
  while (walker.Next(entry) == orn::errors::kOk)
    if (entry.path == path) return;
  FAIL() << "never reached " << path;
}

class AreaResolverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d :
         {"root", "root/x", "root/x/y", "root/x/w", "outside", "outside/y", "outside/w"})
      arvo::test::MakeDir(dir / d);
    arvo::test::WriteFile(dir / "root/x/f", "inside");
    arvo::test::WriteFile(dir / "root/x/y/g", "inside");
    arvo::test::WriteFile(dir / "outside/f", "outside");
    arvo::test::WriteFile(dir / "outside/y/g", "outside");
  }

  TempDir dir;
};

TEST_F(AreaResolverTest, EntriesOfAHeldDirectoryComeFromItAfterItsPathIsSwapped) {
  const ino_t inside = InodeOf(dir / "root/x/f");
  DirectoryWalker walker;
  ASSERT_EQ(walker.Open(dir / "root"), orn::errors::kOk);
  const AreaResolver resolver(walker);
  DirectoryWalker::Entry entry;
  NextUntil(walker, dir / "root/x", entry);
  ASSERT_EQ(walker.Enter(entry), orn::errors::kOk);
  NextUntil(walker, dir / "root/x/f", entry);

  SwapForLink(dir / "root/x", dir / "outside");
  struct stat st {};
  ASSERT_EQ(resolver.LStat(dir / "root/x/f", &st), 0) << std::strerror(errno);
  EXPECT_EQ(st.st_ino, inside);
  EXPECT_FALSE(resolver.OnPseudoFileSystem(dir / "root/x/f"));
  EXPECT_EQ(resolver.LStat(dir / "root/x/y", &st), 0);
  // Not in the held directory: resolved from the root, where x is a link now.
  EXPECT_EQ(resolver.LStat(dir / "root/x/y/g", &st), -1);
  EXPECT_EQ(errno, ENOENT);
  // The root itself, and paths outside it, are taken as given.
  EXPECT_EQ(resolver.LStat(dir / "root", &st), 0);
  EXPECT_EQ(resolver.LStat(dir / "outside/f", &st), 0);
}

TEST_F(AreaResolverTest, BelowASpilledLevelALinkOnTheWayReadsAsVanished) {
  DirectoryWalker walker(1);  // every level below the top is spilled
  ASSERT_EQ(walker.Open(dir / "root"), orn::errors::kOk);
  const AreaResolver resolver(walker);
  DirectoryWalker::Entry entry;
  NextUntil(walker, dir / "root/x", entry);
  ASSERT_EQ(walker.Enter(entry), orn::errors::kOk);
  // Enter the first sub-directory of x (which spills x), leave it, and take
  // the other from x's spilled entries: its directory has no open stream.
  std::string second;
  while (walker.Next(entry) == orn::errors::kOk) {
    if (!entry.isDirectory) continue;
    if (second.empty()) {
      second = entry.path == dir / "root/x/y" ? dir / "root/x/w" : dir / "root/x/y";
      ASSERT_EQ(walker.Enter(entry), orn::errors::kOk);
      continue;
    }
    break;
  }
  ASSERT_EQ(entry.path, second);
  ASSERT_EQ(walker.DirectoryFd(), -1);

  struct stat st {};
  EXPECT_EQ(resolver.LStat(second, &st), 0);
  SwapForLink(dir / "root/x", dir / "outside");
  EXPECT_EQ(resolver.LStat(second, &st), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(walker.Enter(entry), orn::errors::kOk);  // not entered through the link
}

TEST_F(AreaResolverTest, ARootReachedThroughALinkIsWalkedBeneath) {
  ASSERT_EQ(::symlink("root", (dir / "via").c_str()), 0);
  DirectoryWalker walker;
  ASSERT_EQ(walker.Open(dir / "via/x"), orn::errors::kOk);
  const AreaResolver resolver(walker);
  DirectoryWalker::Entry entry;
  NextUntil(walker, dir / "via/x/f", entry);
  struct stat st {};
  EXPECT_EQ(resolver.LStat(entry.path, &st), 0) << std::strerror(errno);
  EXPECT_EQ(st.st_ino, InodeOf(dir / "root/x/f"));
}

}  // namespace
}  // namespace pax::fim
