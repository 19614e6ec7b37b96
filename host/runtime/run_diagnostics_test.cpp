#include "host/runtime/run_diagnostics.h"

#include <gtest/gtest.h>

#include "orn/tracer.h"

namespace arvo::host {
namespace {

using Kind = ObjectFailure::Kind;

// The module's own lines, as the check-and-trace form writes them.
constexpr char kStatLine[] =
    "src/snapshot_builder.cpp:106(tools::LStatFile(path, &st) != -1),(bool) failed: result = "
    "falseCannot stat for '/a/it's': No such file or directory";
constexpr char kOpenLine[] =
    "src/snapshot_builder.cpp:140(m_fileFactory->CreateFile(...)),(ORN_SUCCEEDED(_result)) "
    "failed: result = 0x80000045 (Access denied)Cannot open file '/etc/shadow-'";
constexpr char kReplacedLine[] =
    "src/snapshot_builder.cpp:150(identity),(bool) failed: result = falseFile '/a/f' was "
    "replaced before it could be read";

TEST(RunDiagnosticsTest, FailureLinesNameTheObjectCauseAndKind) {
  auto f = ParseFailureLine(kStatLine);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->object, "/a/it's");
  EXPECT_EQ(f->cause, "No such file or directory");
  EXPECT_EQ(f->kind, Kind::kVanished);
  f = ParseFailureLine(kOpenLine);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->object, "/etc/shadow-");
  EXPECT_EQ(f->cause, "Access denied");
  EXPECT_EQ(f->kind, Kind::kAccessDenied);
  f = ParseFailureLine(kReplacedLine);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->object, "/a/f");
  EXPECT_EQ(f->kind, Kind::kVanished);
  EXPECT_FALSE(ParseFailureLine("x.cpp:1(BuildAreaSnapshot),(...) failed: Cannot build /a"));
}

TEST(RunDiagnosticsTest, SkipLinesNameThePartAndWhy) {
  auto p = ParseSkipLine("odfim\tPath '/no'pe' doesn't exist. Skip it");
  ASSERT_TRUE(p);
  EXPECT_EQ(p->path, "/no'pe");
  EXPECT_EQ(p->why, "does not exist");
  p = ParseSkipLine("odfim\tCannot build snapshot for magic file '/proc'. Skip it");
  ASSERT_TRUE(p);
  EXPECT_EQ(p->why, "pseudo file system");
  p = ParseSkipLine("odfim\tCannot open '/a/d': 0x80000045 (Access denied). Skip it");
  ASSERT_TRUE(p);
  EXPECT_EQ(p->path, "/a/d");
  EXPECT_EQ(p->why, "Access denied");
  EXPECT_FALSE(ParseSkipLine("odfim\tCannot open '/a/d'"));
}

// A vanished object's ACL: the errno is on the line before the one that
// names the object.
TEST(RunDiagnosticsTest, AnEarlierLineGivesTheCauseOfAnUnspecifiedFailure) {
  RunDiagnostics d;
  d.OnLine(orn::kTraceLevelError, "odfim\tCannot get size of acl attr: No such file or directory");
  d.OnLine(orn::kTraceLevelError,
           "x.cpp:127(GetAcl(path, acl)),(ORN_SUCCEEDED(_result)) failed: result = 0x8000004b "
           "(Unspecified error)Cannot get acl for '/s/3665'");
  ASSERT_TRUE(d.Failure());
  EXPECT_EQ(d.Failure()->object, "/s/3665");
  EXPECT_EQ(d.Failure()->cause, "No such file or directory");
  EXPECT_EQ(d.Failure()->kind, Kind::kVanished);
}

// The deepest failure is traced first; callers trace it again on the way
// out and must not replace it. Reset starts a new run.
TEST(RunDiagnosticsTest, KeepsTheFirstFailureAndEverySkipUntilReset) {
  RunDiagnostics d;
  d.OnLine(orn::kTraceLevelError, kOpenLine);
  d.OnLine(orn::kTraceLevelError, "x.cpp:2(GetFileHash),(...) failed: Cannot calc hash for '/b'");
  d.OnLine(orn::kTraceLevelWarning, "odfim\tPath '/nope' doesn't exist. Skip it");
  d.OnLine(orn::kTraceLevelWarning, "odfim\tsomething else");
  ASSERT_TRUE(d.Failure());
  EXPECT_EQ(d.Failure()->object, "/etc/shadow-");
  ASSERT_EQ(d.Skipped().size(), 1u);
  d.Reset();
  EXPECT_FALSE(d.Failure());
  EXPECT_TRUE(d.Skipped().empty());
}

}  // namespace
}  // namespace arvo::host
