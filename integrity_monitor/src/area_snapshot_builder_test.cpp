#include "area_snapshot_builder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "pax/enumerations.h"
#include "snapshot_test_support.h"
#include "tests/fake_host.h"
#include "tests/fake_services.h"
#include "tests/temp_tree.h"

namespace pax::fim {
namespace {

using settings::ODFIMSettings;
using settings::ScanArea;

// Everything in scope unless excluded; `hook` runs inside
// Match on the walking thread. Records every question.
class HookMatcher final : public orn::SimpleObject<IPathMatcher> {
 public:
  result_t Match(const NativePath& path, bool isDirectory) const override {
    std::function<void(const NativePath&)> hook;
    {
      std::lock_guard lock(m_mutex);
      m_questions.push_back(path);
      hook = m_hook;
    }
    if (hook) hook(path);
    (void)isDirectory;
    return m_excluded.count(path) ? orn::errors::kFalse : orn::errors::kOk;
  }
  void Exclude(const NativePath& path) { m_excluded.insert(path); }
  void SetHook(std::function<void(const NativePath&)> hook) {
    std::lock_guard lock(m_mutex);
    m_hook = std::move(hook);
  }
  std::vector<NativePath> Questions() const {
    std::lock_guard lock(m_mutex);
    return m_questions;
  }

 private:
  mutable std::mutex m_mutex;
  mutable std::vector<NativePath> m_questions;
  std::function<void(const NativePath&)> m_hook;
  std::set<NativePath> m_excluded;
};

class AreaSnapshotBuilderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(db.OpenPath(dir / "fim.db"), orn::errors::kOk);
    ASSERT_EQ(db.InitializeDatabase(), orn::errors::kOk);
    arvo::test::MakeDir(dir / "area");
    arvo::test::WriteFile(dir / "area/a", "a");
    arvo::test::MakeDir(dir / "area/sub");
    arvo::test::WriteFile(dir / "area/sub/b", "b");
    area.path = dir / "area";
    area.areaFlag = true;
    current.scanAreas = {area};
    taskInfo.taskId = 5;
    context.tracer = tracer.Get();
    context.db = db.Handle();
    context.settings = &current;
    context.taskInfo = &taskInfo;
    context.eventPublisher = events.Get();
    context.matcher = matcher.Get();
    context.stopFlag = &stop;
  }

  result_t Build() {
    SettingsHistory history(context, db, nullptr, nullptr);  // storage unused here
    ChangePublisher publisher(context);
    AreaSnapshotBuilder builder(context, db, history, publisher, gate);
    const ODFIMSettings previous = current;
    return builder.BuildAreaSnapshot(area, previous);
  }
  std::int64_t Count(const std::string& query) {
    std::int64_t n = -1;
    auto cb = [](void* data, int, char** values, char**) {
      *static_cast<std::int64_t*>(data) = std::stoll(values[0]);
      return 0;
    };
    EXPECT_EQ(db.QueryExec(query, cb, &n), orn::errors::kOk);
    return n;
  }
  std::size_t EventsOfType(std::uint32_t type) const {
    std::size_t n = 0;
    for (const ProductEvent& e : events->Events()) n += e.eventType == type;
    return n;
  }

  arvo::test::TempDir dir;
  orn::RefPtr<arvo::test::RecordingTracer> tracer = orn::MakeSimple<arvo::test::RecordingTracer>();
  IntegrityDatabase db{tracer.Get()};
  orn::RefPtr<arvo::test::RecordingEventPublisher> events =
      orn::MakeSimple<arvo::test::RecordingEventPublisher>();
  orn::RefPtr<HookMatcher> matcher = orn::MakeSimple<HookMatcher>();
  std::atomic<std::uint8_t> stop{0};
  PauseGate gate;
  ScanArea area;
  ODFIMSettings current;
  TaskInfo taskInfo;
  OnDemandContext context;
};

TEST_F(AreaSnapshotBuilderTest, StopDuringWalkEndsBeforeNextEntryAndLeavesNothingBehind) {
  for (int i = 0; i < 20; ++i) arvo::test::WriteFile(dir / ("area/f" + std::to_string(i)), "");
  matcher->SetHook([&](const NativePath&) {
    if (matcher->Questions().size() == 2) stop = 1;
  });
  EXPECT_EQ(Build(), orn::errors::kCancelled);
  EXPECT_EQ(matcher->Questions().size(), 2u);
  EXPECT_EQ(Count("SELECT count(*) FROM ScanScopes"), 0);  // rolled back
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline"), 0);
  EXPECT_EQ(EventsOfType(event_type::kBaselineBuilt), 0u);

  stop = 0;
  matcher->SetHook(nullptr);
  tracer->Clear();
  EXPECT_EQ(Build(), orn::errors::kFalse);
  EXPECT_TRUE(tracer->Contains("Build new baseline"));
}

TEST_F(AreaSnapshotBuilderTest, ExcludedDirectoriesAreNotEnteredUnlessExceptionsMayReinclude) {
  matcher->Exclude(dir / "area/sub");
  EXPECT_EQ(Build(), orn::errors::kFalse);
  const std::vector<NativePath> asked = matcher->Questions();
  EXPECT_EQ(std::set<NativePath>(asked.begin(), asked.end()),
            (std::set<NativePath>{dir / "area/a", dir / "area/sub"}));
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline"), 1);

  // An exception could re-include something beneath the excluded directory.
  current.globalExclusions = {{u"", "*/sub", {"*/sub/keep"}, true}};
  (void)Build();
  EXPECT_EQ(matcher->Questions().size(), asked.size() + 3);
  const std::vector<NativePath> now = matcher->Questions();
  EXPECT_NE(std::find(now.begin(), now.end(), dir / "area/sub/b"), now.end());
}

TEST_F(AreaSnapshotBuilderTest, MissingAndPseudoFileSystemAreasAreWarnings) {
  area.path = dir / "missing";
  EXPECT_EQ(Build(), orn::errors::kFalse);  // an empty baseline
  EXPECT_TRUE(tracer->Contains("odfim\tPath '" + area.path + "' doesn't exist. Skip it",
                               orn::kTraceLevelWarning));
  area.path = "/proc/sys";
  EXPECT_EQ(Build(), orn::errors::kFalse);
  EXPECT_TRUE(tracer->Contains("Cannot build snapshot for magic file '/proc/sys'. Skip it",
                               orn::kTraceLevelWarning));
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline"), 0);
  EXPECT_TRUE(matcher->Questions().empty());
}

TEST_F(AreaSnapshotBuilderTest, FailedAreaIsReportedAndOnlyANewBaselineIsDropped) {
  auto removeOthers = [&](const NativePath& path) {
    if (path.rfind(dir / "area/", 0) != 0) return;
    for (const char* other : {"a", "sub/b"}) unlink((dir / ("area/" + std::string(other))).c_str());
    (void)rmdir((dir / "area/sub").c_str());
  };
  // Entries vanish between reading the directory and taking their status.
  arvo::test::WriteFile(dir / "area/z", "");
  matcher->SetHook([&](const NativePath& path) {
    removeOthers(path);
    matcher->SetHook(nullptr);
  });
  EXPECT_EQ(Build(), orn::errors::kUnspecified);
  EXPECT_EQ(EventsOfType(event_type::kIntegrityMonitorError), 1u);
  EXPECT_EQ(Count("SELECT count(*) FROM ScanScopes"), 0);

  arvo::test::WriteFile(dir / "area/a", "a");
  arvo::test::WriteFile(dir / "area/b", "b");
  ASSERT_EQ(Build(), orn::errors::kFalse);
  matcher->SetHook([&](const NativePath& path) {
    if (path.rfind(dir / "area/", 0) != 0) return;
    unlink((dir / "area/a").c_str());
    unlink((dir / "area/b").c_str());
    unlink((dir / "area/z").c_str());
    matcher->SetHook(nullptr);
  });
  EXPECT_EQ(Build(), orn::errors::kUnspecified);
  EXPECT_EQ(EventsOfType(event_type::kIntegrityMonitorError), 2u);
  EXPECT_EQ(Count("SELECT count(*) FROM ScanScopes"), 1);  // an existing baseline stays
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline"), 3);
}

std::string ToHex(const Sha256Digest& digest) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const std::uint8_t b : digest) hex += {kDigits[b >> 4], kDigits[b & 15]};
  return hex;
}

// A directory swapped for a link to a tree of the same names while the walk
// reads it: with a host that opens beneath a directory the walk records the
// directory it holds; with one that opens by path only, the area fails as if
// the object vanished. Either way nothing of the outside tree is recorded.
class SwappedDirectoryTest : public AreaSnapshotBuilderTest,
                             public ::testing::WithParamInterface<bool> {};

TEST_P(SwappedDirectoryTest, NothingOfTheLinkedTreeIsRecorded) {
  const bool opensBeneath = GetParam();
  auto files = orn::MakeSimple<test::FakeFileFactory>();
  auto sha = orn::MakeSimple<test::FakeSha256>();
  context.fileFactory = files.Get();
  context.fileFactoryAt = opensBeneath ? files.Get() : nullptr;
  context.sha256Provider = sha.Get();
  current.computeContentHash = true;
  arvo::test::MakeDir(dir / "outside");
  std::string insideInodes, outsideInodes, outsideHashes;
  for (int i = 0; i < 20; ++i) {
    const std::string name = "/s" + std::to_string(i);
    arvo::test::WriteFile(dir / ("area/sub" + name), "inside " + std::to_string(i));
    const std::string outside = "OUTSIDE " + std::to_string(i);
    arvo::test::WriteFile(dir / ("outside" + name), outside);
    struct stat in {
    }, out{};
    ASSERT_EQ(lstat((dir / ("area/sub" + name)).c_str(), &in), 0);
    ASSERT_EQ(lstat((dir / ("outside" + name)).c_str(), &out), 0);
    Sha256Digest digest{};
    ASSERT_EQ(sha->GetHashByBuffer(outside.data(), outside.size(), digest), 0);
    const char* comma = i ? "," : "";
    insideInodes += comma + std::to_string(in.st_ino);
    outsideInodes += comma + std::to_string(out.st_ino);
    outsideHashes += std::string(comma) + "x'" + ToHex(digest) + "'";
  }
  matcher->SetHook([&](const NativePath& path) {
    if (path.rfind(dir / "area/sub/", 0) != 0) return;
    matcher->SetHook(nullptr);
    ASSERT_EQ(rename((dir / "area/sub").c_str(), (dir / "area/sub.away").c_str()), 0);
    ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "area/sub").c_str()), 0);
  });

  EXPECT_EQ(Build(), opensBeneath ? orn::errors::kFalse : orn::ResultFromErrno(ENOENT));
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline WHERE ino IN (" + outsideInodes + ")"), 0);
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline WHERE sha256 IN (" + outsideHashes + ")"), 0);
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline WHERE ino IN (" + insideInodes + ")"),
            opensBeneath ? 20 : 0);
}

INSTANTIATE_TEST_SUITE_P(HostOpens, SwappedDirectoryTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Beneath" : "ByPathOnly";
                         });

}  // namespace
}  // namespace pax::fim
