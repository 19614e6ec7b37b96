// arvo-fim daemon when the watch side loses coverage: the loss is published
// as an event, and a catch-up scan reports what changed during the gap; a
// deleted area root is watched again once it exists. Each test names the
// watch backend whose losses it provokes.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "pax/enumerations.h"
#include "tests/e2e/e2e_util.h"

namespace arvo::e2e {
namespace {

namespace mod = pax::modification;

class CoverageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_root = m_tree / "root";
    ASSERT_EQ(::mkdir(m_root.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((m_root + "/a").c_str(), 0755), 0);
  }

  std::unique_ptr<Process> StartDaemon(const std::string& backend, const std::string& interval,
                                       const std::vector<std::string>& launcher = {}) {
    auto p = std::make_unique<Process>(
        std::vector<std::string>{"daemon", "--format", "json", "--backend", backend, "--interval",
                                 interval, m_root},
        std::map<std::string, std::string>{{"ARVO_FIM_DB", m_tree / "db/fim.db"},
                                           {"ARVO_FIM_STORAGE", m_tree / "st/storage"}},
        launcher);
    EXPECT_TRUE(p->WaitForStderr("arvo-fim: watching 1 area(s)")) << p->Stderr();
    // The scan at start has made the baseline that catch-up scans compare with.
    EXPECT_TRUE(p->ReadEventsUntil([](const std::vector<Event>& events) {
      return !OfType(events, "BaselineBuilt").empty();
    })) << p->Stderr();
    return p;
  }

  // Index of the first event from `from` on that `match` accepts, or -1.
  static long Find(const std::vector<Event>& events, std::size_t from,
                   const std::function<bool(const Event&)>& match) {
    for (std::size_t i = from; i < events.size(); ++i)
      if (match(events[i])) return static_cast<long>(i);
    return -1;
  }

  static std::function<bool(const Event&)> CoverageEvent(const std::string& type,
                                                         const std::string& area,
                                                         const std::string& reason) {
    return [=](const Event& e) {
      return e.typeName == type && e.Text("Area") == area && e.Text("Reason") == reason;
    };
  }

  static std::function<bool(const Event&)> Change(const std::string& path, std::int64_t type,
                                                  const std::string& task) {
    return [=](const Event& e) {
      return e.typeName == "SystemIntegrityIssue" && e.Path() == path &&
             e.Number("FileModificationType") == type && e.Text("TaskType") == task;
    };
  }

  // After an overflow provoked while the daemon was stopped (and `gap`
  // made): the loss is published for the area, then the catch-up scan
  // reports `gap`.
  static void ExpectOverflowCaughtUp(Process& daemon, const std::string& root,
                                     const std::string& gap) {
    const auto lost = CoverageEvent("CoverageLost", root, "QueueOverflow");
    const auto caught = Change(gap, mod::kObjectCreated, "ODFIM");
    ASSERT_TRUE(daemon.ReadEventsUntil([&](const std::vector<Event>& events) {
      const long at = Find(events, 0, lost);
      return at >= 0 && Find(events, static_cast<std::size_t>(at), caught) >= 0;
    })) << daemon.Stderr();
    const Event& event = daemon.Events()[Find(daemon.Events(), 0, lost)];
    EXPECT_EQ(event.json["severityName"].Bytes(), "Error");
    EXPECT_EQ(event.Path(), root);
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.Finish(), 0) << daemon.Stderr();
  }

  TempTree m_tree;
  std::string m_root;
};

TEST_F(CoverageTest, InotifyQueueOverflowIsReportedAndTheGapCaughtUpByAScan) {
  std::ifstream limitFile("/proc/sys/fs/inotify/max_queued_events");
  long queued = 0;
  if (!(limitFile >> queued) || queued > 200000) GTEST_SKIP() << "queue too large to overflow";
  auto daemon = StartDaemon("inotify", "3600");
  WriteFile(m_root + "/one", "");
  WriteFile(m_root + "/two", "");
  ASSERT_TRUE(daemon->Stop());
  // Alternate files, so that the kernel cannot merge one record into the
  // one before it: the queue overflows.
  const int one = ::open((m_root + "/one").c_str(), O_WRONLY | O_CLOEXEC);
  const int two = ::open((m_root + "/two").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(one, 0);
  ASSERT_GE(two, 0);
  for (long i = 0; i <= queued + queued / 4; ++i) ASSERT_EQ(::write(i % 2 ? one : two, "x", 1), 1);
  ::close(one);
  ::close(two);
  // Made after the overflow: only the catch-up scan can see it.
  const std::string gap = m_root + "/a/made-during-gap";
  WriteFile(gap, "gap");
  daemon->Signal(SIGCONT);
  ExpectOverflowCaughtUp(*daemon, m_root, gap);
}

// fanotify's queue holds 16384 records and merges those of one name, so
// the overflow takes as many names. The file-system mark queues them even
// outside the area, where the catch-up scan need not see them.
TEST_F(CoverageTest, FanotifyQueueOverflowTakesTheSamePath) {
  if (::geteuid() != 0) GTEST_SKIP() << "the fanotify backend needs CAP_SYS_ADMIN";
  const std::string outside = m_tree / "outside";
  ASSERT_EQ(::mkdir(outside.c_str(), 0755), 0);
  auto daemon = StartDaemon("fanotify", "3600");
  ASSERT_NE(daemon->Stderr().find("watch backend: fanotify"), std::string::npos)
      << daemon->Stderr();
  ASSERT_TRUE(daemon->Stop());
  for (int i = 0; i < 20000; ++i) {
    const std::string name = outside + "/f" + std::to_string(i);
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ::close(fd);
    ASSERT_EQ(::unlink(name.c_str()), 0);
  }
  const std::string gap = m_root + "/a/made-during-gap";
  WriteFile(gap, "gap");
  daemon->Signal(SIGCONT);
  ExpectOverflowCaughtUp(*daemon, m_root, gap);
}

TEST_F(CoverageTest, DeletedAreaRootIsWatchedAgainOnceItExists) {
  WriteFile(m_root + "/a/file", "x");
  auto daemon = StartDaemon("inotify", "1");
  std::filesystem::remove_all(m_root);
  ASSERT_TRUE(daemon->ReadEventsUntil([&](const std::vector<Event>& events) {
    return Find(events, 0, CoverageEvent("CoverageLost", m_root, "RootGone")) >= 0;
  })) << daemon->Stderr();
  ASSERT_EQ(::mkdir(m_root.c_str(), 0755), 0);
  ASSERT_TRUE(daemon->ReadEventsUntil([&](const std::vector<Event>& events) {
    return Find(events, 0, CoverageEvent("CoverageRestored", m_root, "RootBack")) >= 0;
  })) << daemon->Stderr();
  const std::string after = m_root + "/after";
  WriteFile(after, "");
  EXPECT_TRUE(daemon->ReadEventsUntil([&](const std::vector<Event>& events) {
    return Find(events, 0, Change(after, mod::kObjectCreated, "OAFIM")) >= 0;
  })) << daemon->Stderr();
  daemon->Signal(SIGTERM);
  EXPECT_EQ(daemon->Finish(), 0) << daemon->Stderr();
}

// The watch limit is lowered in a user namespace of the test's own, where
// the limit is the namespace's and the system's stays as it is.
TEST_F(CoverageTest, WatchLimitBelowTheTreeIsReported) {
  if (std::system("unshare -U -r true 2>/dev/null") != 0)
    GTEST_SKIP() << "cannot make a user namespace here";
  for (const char* d : {"/b", "/c", "/d", "/e", "/f"})
    ASSERT_EQ(::mkdir((m_root + d).c_str(), 0755), 0);
  auto daemon = StartDaemon("inotify", "3600",
                            {"/usr/bin/unshare", "-U", "-r", "/bin/sh", "-c",
                             "echo 3 > /proc/sys/user/max_inotify_watches && exec \"$0\" \"$@\""});
  EXPECT_TRUE(daemon->ReadEventsUntil([&](const std::vector<Event>& events) {
    return Find(events, 0, CoverageEvent("CoverageLost", m_root, "WatchLimit")) >= 0;
  })) << daemon->Stderr();
  daemon->Signal(SIGTERM);
  EXPECT_EQ(daemon->Finish(), 0) << daemon->Stderr();
}

}  // namespace
}  // namespace arvo::e2e
