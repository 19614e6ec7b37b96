#include "snapshot_comparer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "snapshot_builder.h"
#include "snapshot_test_support.h"

namespace pax::fim::test {
namespace {

using arvo::test::Narrow;

// A field as text: narrow paths and texts as they are, numbers in decimal.
std::string FieldText(const EventField& f) {
  const std::string id = std::to_string(f.fieldId) + "=";
  switch (f.value.Tag()) {
    case FieldTag::kUInt32:
      return id + std::to_string(f.value.AsU32());
    case FieldTag::kUInt64:
      return id + std::to_string(f.value.AsU64());
    case FieldTag::kText8:
      return id + f.value.AsText8();
    case FieldTag::kText16:
      return id + Narrow(f.value.AsText16());
  }
  return id;
}

std::vector<std::string> Fields(const ProductEvent& e) {
  std::vector<std::string> out;
  for (const EventField& f : e.fields) out.push_back(FieldText(f));
  return out;
}

// The change fields of an event (before the task fields).
std::vector<std::string> ChangeFields(const ProductEvent& e) {
  std::vector<std::string> all = Fields(e);
  return {all.begin(), all.end() - 5};
}

// Change fields of several events, in a fixed order: the order in which
// different objects come back from the comparison is not defined.
std::vector<std::vector<std::string>> SortedChanges(const std::vector<ProductEvent>& events) {
  std::vector<std::vector<std::string>> out;
  for (const ProductEvent& e : events) out.push_back(ChangeFields(e));
  std::sort(out.begin(), out.end());
  return out;
}

class SnapshotComparerTest : public EngineTest {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    EngineTest::SetUp();
    ASSERT_EQ(db.CheckScanScopeBaseline(area.Path(), taskInfo.taskId, scope), 1);
  }

  static FileSnapshot Snap(std::uint64_t ino, std::vector<std::string> paths) {
    FileSnapshot s;
    s.ino = ino;
    s.dev = 1;
    s.nlinks = paths.size();
    s.size = 10;
    s.attr = S_IFREG | 0644;
    s.ctime_sec = s.mtime_sec = s.atime_sec = 1000;
    for (const std::string& p : paths) {
      s.paths.insert(s.paths.end(), p.begin(), p.end());
      s.paths.push_back(0);
    }
    return s;
  }
  void Store(bool baseline, const FileSnapshot& snap) {
    context.buildingBaseline = baseline;
    ASSERT_EQ(builder.Insert(scope, snap), 0);
  }
  void Both(const FileSnapshot& before, const FileSnapshot& after) {
    Store(true, before);
    Store(false, after);
  }
  std::vector<ProductEvent> Run(result_t expected = 1) {
    EXPECT_EQ(comparer.CompareSnapshots(scope), expected);
    return events->Events();
  }

  std::uint64_t scope = 0;
  SnapshotBuilder builder{context, db};
  SnapshotComparer comparer{context, db, publisher};
};

TEST_F(SnapshotComparerTest, IdenticalSnapshotsPublishNothing) {
  Both(Snap(1, {"/a"}), Snap(1, {"/a"}));
  EXPECT_TRUE(Run(0).empty());
  EXPECT_TRUE(tracer->Contains("odfim\tNo changes found", 800));
}

TEST_F(SnapshotComparerTest, CreatedAndDeletedObjectsCarryFileAndTaskFields) {
  Store(true, Snap(1, {"/old"}));
  FileSnapshot dir = Snap(2, {"/new1", "/new2"});
  dir.attr = S_IFDIR | 0755;
  Store(false, dir);
  const auto events = Run();
  ASSERT_EQ(events.size(), 3u);
  for (const ProductEvent& e : events) {
    EXPECT_EQ(e.eventType, 67u);
    EXPECT_EQ(e.severity, 0u);
    EXPECT_EQ(e.headerWord, 2u);
    EXPECT_EQ(e.id, 0u);
    if (ChangeFields(e)[1] == "66=/old") {
      EXPECT_EQ(Fields(e), (std::vector<std::string>{"54=8", "66=/old", "55=0", "5=Default", "8=7",
                                                     "7=99", "69=rule-1", "12=ODFIM"}));
    }
  }
  EXPECT_EQ(SortedChanges(events),
            (std::vector<std::vector<std::string>>{{"54=7", "66=/new1", "55=1"},
                                                   {"54=7", "66=/new2", "55=1"},
                                                   {"54=8", "66=/old", "55=0"}}));
  EXPECT_TRUE(tracer->Contains("odfim\tbefore: ino: 1, dev: 1, perm: -rw-r--r--", 800));
}

TEST_F(SnapshotComparerTest, ReplacedFileIsDeletedAndCreated) {
  Both(Snap(1, {"/f"}), Snap(2, {"/f"}));
  EXPECT_EQ(SortedChanges(Run()), (std::vector<std::vector<std::string>>{
                                      {"54=7", "66=/f", "55=0"}, {"54=8", "66=/f", "55=0"}}));
}

// A freed inode number handed to another object: never a rename, and no
// content or attribute change against the old object.
TEST_F(SnapshotComparerTest, AReusedNumberOfAnotherTypeIsADeletionAndACreation) {
  FileSnapshot link = Snap(5, {"/t/l"});
  link.attr = S_IFLNK | 0777;
  FileSnapshot directory = Snap(5, {"/t/d"});
  directory.attr = S_IFDIR | 0755;
  directory.ctime_sec = 2000;
  Both(link, directory);
  EXPECT_EQ(SortedChanges(Run()), (std::vector<std::vector<std::string>>{
                                      {"54=7", "66=/t/d", "55=1"}, {"54=8", "66=/t/l", "55=5"}}));
  EXPECT_TRUE(detects->Calls().empty());  // no move reported
  EXPECT_TRUE(tracer->Contains("odfim	Inode 5 was reused by another object", 800));
}

TEST_F(SnapshotComparerTest, AReusedNumberBornAfterTheBaselineIsADeletionAndACreation) {
  // rm t/a; echo new > t/b: the baseline row (no birth time recorded)
  // changed at 1000, the object now there was born at 2000.
  FileSnapshot before = Snap(5, {"/t/a"});
  FileSnapshot after = Snap(5, {"/t/b"});
  after.size = 4;
  after.sha256[0] = 1;
  after.ctime_sec = after.mtime_sec = after.btime_sec = 2000;
  Both(before, after);
  EXPECT_EQ(SortedChanges(Run()), (std::vector<std::vector<std::string>>{
                                      {"54=7", "66=/t/b", "55=0"}, {"54=8", "66=/t/a", "55=0"}}));

  // The same path taken by a new object: deleted and created, not changed.
  events->Clear();
  FileSnapshot old = Snap(6, {"/t/f"});
  old.btime_sec = 900;
  FileSnapshot now = Snap(6, {"/t/f"});
  now.btime_sec = now.ctime_sec = 1500;
  now.sha256[1] = 2;
  ASSERT_EQ(db.QueryExec("DELETE FROM Baseline; DELETE FROM CurrentSnaphot", nullptr, nullptr), 0);
  Both(old, now);
  EXPECT_EQ(SortedChanges(Run()), (std::vector<std::vector<std::string>>{
                                      {"54=7", "66=/t/f", "55=0"}, {"54=8", "66=/t/f", "55=0"}}));
}

TEST_F(SnapshotComparerTest, TheSameBirthTimeIsTheSameObject) {
  FileSnapshot before = Snap(7, {"/t/a"});
  before.btime_sec = 900;
  FileSnapshot after = before;
  after.paths = Snap(7, {"/t/b"}).paths;
  after.ctime_sec = 3000;  // renamed later: its change time moves, its birth time does not
  Both(before, after);
  const auto events = Run();
  ASSERT_EQ(events.size(), 1u);  // the change time has no path left in common
  EXPECT_EQ(ChangeFields(events[0]),
            (std::vector<std::string>{"54=13", "66=/t/b", "55=0", "63=/t/a"}));

  // Birth time alone decides; a row without one compares as before.
  FileSnapshot a = Snap(1, {"/x"}), b = Snap(1, {"/y"});
  EXPECT_FALSE(SnapshotComparer::IsAnotherObject(a, b));
  b.btime_sec = a.ctime_sec;  // born no later than the recorded change
  EXPECT_FALSE(SnapshotComparer::IsAnotherObject(a, b));
  b.btime_nsec = 1;
  EXPECT_TRUE(SnapshotComparer::IsAnotherObject(a, b));
  a.btime_sec = b.btime_sec;
  a.btime_nsec = b.btime_nsec;
  EXPECT_FALSE(SnapshotComparer::IsAnotherObject(a, b));
}

TEST_F(SnapshotComparerTest, AModificationTimeSetBackIsReported) {
  FileSnapshot before = Snap(1, {"/f"});
  FileSnapshot after = before;
  after.mtime_sec = 86400;  // touch -d: same content, another modification time
  after.ctime_sec = 2000;
  Both(before, after);
  const auto events = Run();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(
      ChangeFields(events[0]),
      (std::vector<std::string>{"58=1970-01-01 00:33:20.000000000 (1970-01-01 00:16:40.000000000)",
                                "57=1970-01-02 00:00:00.000000000 (1970-01-01 00:16:40.000000000)",
                                "54=3", "66=/f", "55=0"}));
}

TEST_F(SnapshotComparerTest, SinglePathChangesAreRenamesOrMoves) {
  FileSnapshot renamed = Snap(1, {"/d/a"});
  renamed.sha256[0] = 9;
  FileSnapshot renamedAfter = renamed;
  renamedAfter.paths = Snap(1, {"/d/b"}).paths;
  Both(renamed, renamedAfter);
  Both(Snap(2, {"/d/x"}), Snap(2, {"/e/x"}));
  const auto events = Run();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(ChangeFields(events[0]),
            (std::vector<std::string>{"54=13", "66=/d/b", "55=0", "63=/d/a"}));
  EXPECT_EQ(ChangeFields(events[1]),
            (std::vector<std::string>{"54=9", "66=/e/x", "55=0", "63=/d/x"}));
  const auto detects = this->detects->Calls();
  ASSERT_EQ(detects.size(), 2u);
  EXPECT_EQ(detects[0].type, 1u);
  EXPECT_EQ(detects[0].path, "/d/a");
  EXPECT_EQ(detects[0].digest[0], 9);
}

TEST_F(SnapshotComparerTest, AttributeChangesOfARenamedObjectAreReportedUnderItsNewPath) {
  // Renamed, and its status-change time moved with it: the rename says all.
  FileSnapshot moved = Snap(1, {"/d/a"});
  moved.ctime_sec = 2000;
  moved.paths = Snap(1, {"/d/b"}).paths;
  Both(Snap(1, {"/d/a"}), moved);
  // Renamed, made setuid and given away: that is said too, at the new path.
  FileSnapshot setuid = Snap(2, {"/e/x"});
  setuid.attr = S_IFREG | 04755;
  setuid.uid = 123;
  setuid.ctime_sec = 2000;
  Both(Snap(2, {"/d/x"}), setuid);
  const auto changes = SortedChanges(Run());
  EXPECT_EQ(changes, (std::vector<std::vector<std::string>>{
                         {"54=13", "66=/d/b", "55=0", "63=/d/a"},
                         {"54=9", "66=/e/x", "55=0", "63=/d/x"},
                         {"65=123 (0)", "60=-rwsr-xr-x (-rw-r--r--)",
                          "58=1970-01-01 00:33:20.000000000 (1970-01-01 00:16:40.000000000)",
                          "54=3", "66=/e/x", "55=0"}}));
}

TEST_F(SnapshotComparerTest, RemovedHardLinkIsDeletedAndTheRestSeeTheLinkCount) {
  FileSnapshot before = Snap(1, {"/b", "/a"});
  FileSnapshot after = Snap(1, {"/a"});
  Both(before, after);
  const auto events = Run();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(ChangeFields(events[0]), (std::vector<std::string>{"54=8", "66=/b", "55=0"}));
  EXPECT_EQ(ChangeFields(events[1]),
            (std::vector<std::string>{"59=1 (2)", "54=3", "66=/a", "55=0"}));
}

TEST_F(SnapshotComparerTest, HardLinkOrderAloneIsNoChange) {
  Both(Snap(1, {"/b", "/a"}), Snap(1, {"/a", "/b"}));
  EXPECT_TRUE(Run(0).empty());
  EXPECT_FALSE(tracer->Contains("No changes found"));  // the row did come back
}

TEST_F(SnapshotComparerTest, AttributesAreReportedNewFirstInFixedOrder) {
  settings.reportAccessTime = true;
  FileSnapshot before = Snap(1, {"/f", "/g"});
  FileSnapshot after = before;
  after.nlinks = 5;
  before.nlinks = 4;
  after.uid = 1000;
  after.gid = 100;
  after.attr = S_IFREG | 0755;
  after.ctime_nsec = 42;
  after.atime_sec = 86400;
  Both(before, after);
  const auto events = Run();
  ASSERT_EQ(events.size(), 2u);
  const std::vector<std::string> attributes = {
      "59=5 (4)",
      "65=1000 (0)",
      "64=100 (0)",
      "60=-rwxr-xr-x (-rw-r--r--)",
      "58=1970-01-01 00:16:40.000000042 (1970-01-01 00:16:40.000000000)",
      "56=1970-01-02 00:00:00.000000000 (1970-01-01 00:16:40.000000000)",
      "54=3"};
  std::vector<std::string> forF = attributes, forG = attributes;
  forF.insert(forF.end(), {"66=/f", "55=0"});
  forG.insert(forG.end(), {"66=/g", "55=0"});
  EXPECT_EQ(ChangeFields(events[0]), forF);
  EXPECT_EQ(ChangeFields(events[1]), forG);
}

TEST_F(SnapshotComparerTest, AccessTimeAloneCountsOnlyWhenReported) {
  FileSnapshot after = Snap(1, {"/f"});
  after.atime_sec += 5;
  Both(Snap(1, {"/f"}), after);
  EXPECT_TRUE(Run(0).empty());
  settings.reportAccessTime = true;
  const auto events = Run();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(ChangeFields(events[0]).front().substr(0, 3), "56=");
}

TEST_F(SnapshotComparerTest, ContentAndAclChangesArePerPath) {
  FileSnapshot before = Snap(1, {"/f"});
  FileSnapshot after = before;
  after.sha256[3] = 1;
  after.acl = {2, 0, 0, 0};
  Both(before, after);
  const auto events = Run();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(ChangeFields(events[0]), (std::vector<std::string>{"54=6", "66=/f", "55=0"}));
  EXPECT_EQ(ChangeFields(events[1]), (std::vector<std::string>{"54=1", "66=/f", "55=0"}));
  EXPECT_EQ(comparer.Compare(before, after), 1);
  EXPECT_EQ(comparer.Compare(before, before), 0);
}

// A directory's default ACL is access control as its access ACL is: one
// event per path whichever of the two differs, and none where the baseline
// row predates the recording of default ACLs (not known).
TEST_F(SnapshotComparerTest, DefaultAclChangesAreAccessControlChangesWhereKnown) {
  const auto accessEvents = [this] {
    std::vector<std::string> paths;
    for (const ProductEvent& e : events->Events())
      if (ChangeFields(e)[0] == "54=1") paths.push_back(ChangeFields(e)[1]);
    return paths;
  };
  FileSnapshot before = Snap(1, {"/d", "/e"});
  before.attr = S_IFDIR | 0755;
  FileSnapshot after = before;
  after.acl_default = orn::types::blob_t{2, 0, 0, 0, 1};
  EXPECT_EQ(comparer.Compare(before, after), 1);
  EXPECT_EQ(accessEvents(), (std::vector<std::string>{"66=/d", "66=/e"}));

  events->Clear();
  after.acl = {2, 0, 0, 0};
  EXPECT_EQ(comparer.Compare(before, after), 1);
  EXPECT_EQ(accessEvents(), (std::vector<std::string>{"66=/d", "66=/e"}));

  // Through the database: a NULL baseline value is not known, and the
  // object's other changes are still reported.
  events->Clear();
  before = Snap(2, {"/old"});
  before.attr = S_IFDIR | 0755;
  before.acl_default.reset();
  after = before;
  after.acl_default = orn::types::blob_t{2, 0, 0, 0, 1};
  after.ctime_sec += 1;
  Both(before, after);
  const auto reported = Run();
  ASSERT_EQ(reported.size(), 1u);
  const auto fields = ChangeFields(reported[0]);
  EXPECT_NE(std::find(fields.begin(), fields.end(), "54=3"), fields.end());  // the change time
  EXPECT_TRUE(accessEvents().empty());

  // And a known one that differs is reported through it too.
  events->Clear();
  before.acl_default = orn::types::blob_t{};
  Store(true, before);
  Run();
  EXPECT_EQ(accessEvents(), (std::vector<std::string>{"66=/old"}));
}

TEST_F(SnapshotComparerTest, FailedPublishEndsTheComparison) {
  events->FailWith(orn::errors::kNotReady);
  Store(false, Snap(1, {"/a"}));
  Store(false, Snap(2, {"/b"}));
  Run(orn::errors::kNotReady);
  EXPECT_EQ(events->Events().size(), 1u);
  EXPECT_TRUE(tracer->Contains(
      "(res = Compare(before, after)),(ORN_SUCCEEDED(_result)) failed: result = 0x80000063 (Not "
      "ready)Cannot compare current snapshot with baseline",
      300));
}

}  // namespace
}  // namespace pax::fim::test
