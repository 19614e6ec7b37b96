#include "area_snapshot_builder.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
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

// Runs `body` on a thread of its own private mount namespace: its mounts are
// seen by that thread alone and vanish with it. Returns why it could not
// (not root, no CAP_SYS_ADMIN, a seccomp filter), or "" when `body` ran.
std::string InPrivateMountNamespace(const std::function<std::string()>& body) {
  std::string why;
  std::thread thread([&] {
    if (::unshare(CLONE_NEWNS) != 0) {
      why = std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
      return;
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      why = std::string("mount(MS_PRIVATE): ") + std::strerror(errno);
      return;
    }
    why = body();
  });
  thread.join();
  return why;
}

std::string BindMount(const std::string& source, const std::string& target) {
  if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0) return "";
  return "mount --bind " + source + " " + target + ": " + std::strerror(errno);
}

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
  // The paths blob of every row of `table`, as text with '|' for NUL.
  std::set<std::string> PathsOf(const char* table) {
    std::set<std::string> out;
    sqlite3_stmt* stmt = nullptr;
    const std::string query = std::string("SELECT paths FROM ") + table;
    EXPECT_EQ(sqlite3_prepare_v2(db.Handle(), query.c_str(), -1, &stmt, nullptr), SQLITE_OK);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      const char* p = static_cast<const char*>(sqlite3_column_blob(stmt, 0));
      std::string paths(p ? p : "", static_cast<std::size_t>(sqlite3_column_bytes(stmt, 0)));
      std::replace(paths.begin(), paths.end(), '\0', '|');
      out.insert(paths);
    }
    sqlite3_finalize(stmt);
    return out;
  }
  // A blob literal of `path` and its NUL, for SQL text.
  static std::string PathsLiteral(const std::string& path) {
    std::string hex = "x'";
    char byte[3];
    for (const unsigned char c : path + '\0') {
      std::snprintf(byte, sizeof byte, "%02x", c);
      hex += byte;
    }
    return hex + "'";
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
            (std::set<NativePath>{dir / "area", dir / "area/a", dir / "area/sub"}));
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline"), 2);  // the area root and a

  // An exception could re-include something beneath the excluded directory.
  current.globalExclusions = {{u"", "*/sub", {"*/sub/keep"}, true}};
  (void)Build();
  EXPECT_EQ(matcher->Questions().size(), asked.size() + 4);
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
    if (path.rfind(dir / "area/", 0) != 0) return;  // the area root
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
  EXPECT_EQ(Count("SELECT count(*) FROM Baseline"), 4);    // the area root, a, b and z
}

// The area's directory is an object of the area: recorded in the baseline
// and compared like every other.
TEST_F(AreaSnapshotBuilderTest, TheAreaRootIsRecordedAndCompared) {
  ASSERT_EQ(Build(), orn::errors::kFalse);
  EXPECT_EQ(PathsOf("Baseline"), (std::set<std::string>{dir / "area|", dir / "area/a|",
                                                        dir / "area/sub|", dir / "area/sub/b|"}));
  ASSERT_EQ(::chmod((dir / "area").c_str(), 0777), 0);
  ASSERT_EQ(Build(), orn::errors::kFalse);
  std::size_t rootChanges = 0;
  for (const ProductEvent& e : events->Events()) {
    bool attributes = false, root = false, mode = false;
    for (const EventField& f : e.fields) {
      attributes |= f.fieldId == field::kFileModificationType &&
                    f.value.AsU32() == modification::kObjectAttributesChanged;
      root |= f.fieldId == field::kPath && f.value.AsText8() == dir / "area";
      mode |=
          f.fieldId == field::kObjectAttributes && f.value.AsText16() == u"drwxrwxrwx (drwxr-xr-x)";
    }
    rootChanges += attributes && root && mode;
  }
  EXPECT_EQ(rootChanges, 1u);
}

// A baseline taken before area roots were recorded gets its root row the
// first time it is compared, without a "created" report for the root.
TEST_F(AreaSnapshotBuilderTest, ABaselineWithoutItsAreaRootAdoptsItSilently) {
  ASSERT_EQ(Build(), orn::errors::kFalse);
  const std::string root = dir / "area";
  ASSERT_EQ(
      db.QueryExec("DELETE FROM Baseline WHERE paths = " + PathsLiteral(root), nullptr, nullptr),
      orn::errors::kOk);
  ASSERT_EQ(PathsOf("Baseline").count(root + "|"), 0u);
  events->Clear();
  EXPECT_EQ(Build(), orn::errors::kOk);  // nothing to report
  EXPECT_TRUE(events->Events().empty() || EventsOfType(event_type::kSystemIntegrityIssue) == 0u);
  EXPECT_TRUE(tracer->Contains("odfim\tThe baseline of '" + root + "' gets its area root", 800));
  EXPECT_EQ(PathsOf("Baseline").count(root + "|"), 1u);

  // An empty baseline (the area did not exist) adopts nothing: the root and
  // everything under it are created.
  ASSERT_EQ(db.QueryExec("DELETE FROM Baseline", nullptr, nullptr), orn::errors::kOk);
  events->Clear();
  EXPECT_EQ(Build(), orn::errors::kFalse);
  EXPECT_EQ(EventsOfType(event_type::kSystemIntegrityIssue), 4u);
}

// Reading a directory does not change its access time, which the next scan
// would report when access times are reported.
TEST_F(AreaSnapshotBuilderTest, TheWalkLeavesDirectoryAccessTimesAlone) {
  // An access time older than the modification time: relatime updates it
  // on the next read.
  const timespec times[2] = {{946684800, 0}, {0, UTIME_OMIT}};
  for (const char* d : {"area", "area/sub"})
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir / d).c_str(), times, 0), 0);
  ASSERT_EQ(Build(), orn::errors::kFalse);
  for (const char* d : {"area", "area/sub"}) {
    struct stat st {};
    ASSERT_EQ(::stat((dir / d).c_str(), &st), 0);
    EXPECT_EQ(st.st_atim.tv_sec, 946684800) << d;
  }
  current.reportAccessTime = true;
  EXPECT_EQ(Build(), orn::errors::kOk);
  EXPECT_EQ(EventsOfType(event_type::kSystemIntegrityIssue), 0u);
}

// A directory bind-mounted inside the area reaches each of its files by two
// paths; each file's row keeps both, as hard links do.
TEST_F(AreaSnapshotBuilderTest, ABindMountKeepsBothPathsOfEachObject) {
#ifdef ARVO_UNDER_EMULATOR
  // Seen there: the walk finds neither the bind mount nor proc beneath it,
  // and the test can hang inside the emulator. The native legs run it.
  GTEST_SKIP() << "qemu-user does not reproduce a thread's private mount namespace";
#endif
  arvo::test::MakeDir(dir / "area/alias");
  arvo::test::WriteFile(dir / "area/sub/c", "c");
  // A file bind-mounted from proc: on a pseudo file system although its
  // directory is not; skipped like any entry on proc.
  arvo::test::WriteFile(dir / "area/version", "");
  result_t built = 0;
  const std::string why = InPrivateMountNamespace([&]() -> std::string {
    if (std::string error = BindMount(dir / "area/sub", dir / "area/alias"); !error.empty())
      return error;
    if (std::string error = BindMount("/proc/version", dir / "area/version"); !error.empty())
      return error;
    built = Build();
    return "";
  });
  if (!why.empty()) GTEST_SKIP() << "needs a private mount namespace: " << why;
  EXPECT_EQ(built, orn::errors::kFalse);
  const std::set<std::string> paths = PathsOf("Baseline");
  // Depth-first order decides which path comes first; both are there.
  for (const char* name : {"b", "c"}) {
    const std::string viaSub = dir / "area/sub/" + name + "|";
    const std::string viaAlias = dir / "area/alias/" + name + "|";
    EXPECT_TRUE(paths.count(viaSub + viaAlias) + paths.count(viaAlias + viaSub) == 1u)
        << name << " in " << ::testing::PrintToString(paths);
  }
  // Directories keep their own path only: the two mount points
  // are one directory, recorded once.
  EXPECT_EQ(paths.count(dir / "area/sub|") + paths.count(dir / "area/alias|"), 1u);
  EXPECT_EQ(paths.count(dir / "area/version|"), 0u);
  EXPECT_EQ(paths.count(dir / "area/a|"), 1u);
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
