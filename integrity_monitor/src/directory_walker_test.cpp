#include "directory_walker.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>

#include "tests/temp_tree.h"

namespace pax::fim {
namespace {

using arvo::test::TempDir;

// Walks the whole tree entering every directory; path -> isDirectory.
std::map<std::string, bool> WalkAll(DirectoryWalker& walker, const std::string& root,
                                    std::size_t* maxOpen = nullptr) {
  std::map<std::string, bool> seen;
  EXPECT_EQ(walker.Open(root), orn::errors::kOk);
  DirectoryWalker::Entry entry;
  for (;;) {
    const result_t r = walker.Next(entry);
    if (r != orn::errors::kOk) {
      EXPECT_EQ(r, orn::errors::kFalse);
      break;
    }
    EXPECT_TRUE(seen.emplace(entry.path, entry.isDirectory).second) << "twice: " << entry.path;
    if (entry.isDirectory) {
      EXPECT_EQ(walker.Enter(entry), orn::errors::kOk) << entry.path;
    }
    if (maxOpen) *maxOpen = std::max(*maxOpen, walker.OpenStreams());
  }
  EXPECT_EQ(walker.Depth(), 0u);
  return seen;
}

TEST(DirectoryWalkerTest, VisitsEveryEntryOnceAndNeverFollowsLinks) {
  TempDir dir;
  arvo::test::MakeDir(dir / "a");
  arvo::test::MakeDir(dir / "a/b");
  arvo::test::WriteFile(dir / "a/b/file", "x");
  arvo::test::WriteFile(dir / "top", "");
  ASSERT_EQ(symlink("a", (dir / "link-to-dir").c_str()), 0);
  ASSERT_EQ(symlink("/nonexistent", (dir / "dangling").c_str()), 0);

  DirectoryWalker walker;
  const std::map<std::string, bool> seen = WalkAll(walker, dir.Path() + "/");
  const std::map<std::string, bool> expected = {
      {dir / "a", true},    {dir / "a/b", true},          {dir / "a/b/file", false},
      {dir / "top", false}, {dir / "link-to-dir", false}, {dir / "dangling", false}};
  EXPECT_EQ(seen, expected);  // also: one "/" after a root that ends with "/"
}

TEST(DirectoryWalkerTest, DeepTreeStaysWithinTheStreamBound) {
  TempDir dir;
  // Deeper than PATH_MAX: spilled levels are reopened by path in pieces.
  const int depth = 400;
  arvo::test::MakeDeepTree(dir.Path(), depth, "level-directory-name");
  DirectoryWalker walker(3);
  std::size_t maxOpen = 0;
  const std::map<std::string, bool> seen = WalkAll(walker, dir.Path(), &maxOpen);
  EXPECT_EQ(seen.size(), 2u * depth);  // each level: its directory and its file "f"
  EXPECT_LE(maxOpen, 3u);
  EXPECT_GT(std::max_element(seen.begin(), seen.end(),
                             [](auto& a, auto& b) { return a.first.size() < b.first.size(); })
                ->first.size(),
            4096u);
}

TEST(DirectoryWalkerTest, DefaultBoundFollowsTheDescriptorLimit) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit low = saved;
  low.rlim_cur = 64;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  {
    TempDir dir;
    arvo::test::MakeDeepTree(dir.Path(), 200, "d");
    DirectoryWalker walker;
    EXPECT_EQ(walker.MaxOpenStreams(), 16u);
    EXPECT_EQ(WalkAll(walker, dir.Path()).size(), 400u);
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
}

TEST(DirectoryWalkerTest, FailuresAreResultsAndLeaveTheWalkUsable) {
  TempDir dir;
  DirectoryWalker walker;
  EXPECT_EQ(orn::ErrnoFromResult(walker.Open(dir / "missing")), ENOENT);
  arvo::test::WriteFile(dir / "file", "");
  EXPECT_EQ(orn::ErrnoFromResult(walker.Open(dir / "file")), ENOTDIR);

  arvo::test::MakeDir(dir / "gone");
  arvo::test::MakeDir(dir / "kept");
  ASSERT_EQ(walker.Open(dir.Path()), orn::errors::kOk);
  DirectoryWalker::Entry entry;
  std::size_t entered = 0;
  std::size_t visited = 0;
  while (walker.Next(entry) == orn::errors::kOk) {
    ++visited;
    if (entry.path == dir / "gone") {
      ASSERT_EQ(rmdir(entry.path.c_str()), 0);
    }
    if (entry.isDirectory && ORN_SUCCEEDED(walker.Enter(entry))) ++entered;
  }
  EXPECT_EQ(visited, 3u);
  EXPECT_EQ(entered, 1u);  // the removed one fails to open, the walk goes on
}

}  // namespace
}  // namespace pax::fim
