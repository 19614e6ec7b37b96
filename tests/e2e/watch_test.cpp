// arvo-fim watch on a real temporary tree: each change becomes one event
// with the right fields; excluded objects produce none.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "pax/enumerations.h"
#include "tests/e2e/e2e_util.h"

namespace arvo::e2e {
namespace {

namespace mod = pax::modification;

class WatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::vector<std::string> backend = WatchBackendArgs();
    if (!backend.empty() && backend[1] == "fanotify" && ::geteuid() != 0)
      GTEST_SKIP() << "the fanotify backend needs CAP_SYS_ADMIN";
    m_root = m_tree / "root";
    ASSERT_EQ(::mkdir(m_root.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((m_root + "/a").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((m_root + "/b").c_str(), 0755), 0);
  }

  std::unique_ptr<Process> StartWatch(std::vector<std::string> extra = {}) {
    extra.push_back(m_root);
    return StartWatchOn(extra, 1);
  }

  // `watch --format json` + `tail`, once it says that it watches `areas`.
  std::unique_ptr<Process> StartWatchOn(const std::vector<std::string>& tail, std::size_t areas) {
    std::vector<std::string> args = {"watch", "--format", "json"};
    if (std::find(tail.begin(), tail.end(), "--backend") == tail.end())
      for (const std::string& arg : WatchBackendArgs()) args.push_back(arg);
    args.insert(args.end(), tail.begin(), tail.end());
    auto p = std::make_unique<Process>(args, Env());
    EXPECT_TRUE(p->WaitForStderr("arvo-fim: watching " + std::to_string(areas) + " area(s)"))
        << p->Stderr();
    return p;
  }

  std::map<std::string, std::string> Env() const {
    return {{"ARVO_FIM_DB", m_tree / "db/fim.db"}, {"ARVO_FIM_STORAGE", m_tree / "st/storage"}};
  }

  // Waits until an event for `path` with modification `type` has arrived.
  static bool Await(Process& p, const std::string& path, std::int64_t type) {
    return p.ReadEventsUntil([&](const std::vector<Event>& events) {
      for (const Event& e : events)
        if (e.Path() == path && e.Number("FileModificationType") == type) return true;
      return false;
    });
  }

  static std::vector<const Event*> Matching(const std::vector<Event>& events,
                                            const std::string& path, std::int64_t type) {
    std::vector<const Event*> out;
    for (const Event& e : events)
      if (e.Path() == path && e.Number("FileModificationType") == type) out.push_back(&e);
    return out;
  }

  TempTree m_tree;
  std::string m_root;
};

TEST_F(WatchTest, EachChangeIsReportedOnceWithItsFields) {
  auto watch = StartWatch({"--exclude", "*.ignored"});
  const std::string file = m_root + "/a/new.txt";
  const std::string renamed = m_root + "/a/renamed.txt";
  const std::string moved = m_root + "/b/moved.txt";
  const std::string sub = m_root + "/a/sub";
  const std::string inner = sub + "/inner.txt";
  const std::string bytes = m_root + "/a/\xFF\xFE name\n";
  const std::string ignored = m_root + "/a/skip.ignored";
  const std::string sentinel = m_root + "/b/sentinel";

  WriteFile(file, "");
  ASSERT_TRUE(Await(*watch, file, mod::kObjectCreated));
  WriteFile(file, "data");
  ASSERT_TRUE(Await(*watch, file, mod::kObjectContentChanged));
  ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  ASSERT_TRUE(Await(*watch, file, mod::kObjectAttributesChanged));
  ASSERT_EQ(std::rename(file.c_str(), renamed.c_str()), 0);
  ASSERT_TRUE(Await(*watch, renamed, mod::kObjectRenamed));
  ASSERT_EQ(std::rename(renamed.c_str(), moved.c_str()), 0);
  ASSERT_TRUE(Await(*watch, moved, mod::kObjectMoved));
  ASSERT_EQ(::unlink(moved.c_str()), 0);
  ASSERT_TRUE(Await(*watch, moved, mod::kObjectDeleted));
  // A directory and a file inside it at once: the file may exist before the
  // directory's watch does, and must be reported all the same.
  ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);
  WriteFile(inner, "");
  ASSERT_TRUE(Await(*watch, sub, mod::kObjectCreated));
  ASSERT_TRUE(Await(*watch, inner, mod::kObjectCreated));
  WriteFile(bytes, "");
  ASSERT_TRUE(Await(*watch, bytes, mod::kObjectCreated));
  // Events arrive in order: once the sentinel's is here, an event for the
  // excluded file would have been seen.
  WriteFile(ignored, "");
  WriteFile(sentinel, "");
  ASSERT_TRUE(Await(*watch, sentinel, mod::kObjectCreated));

  watch->Signal(SIGTERM);
  EXPECT_EQ(watch->Finish(), 0) << watch->Stderr();
  const auto& events = watch->Events();

  struct Expected {
    std::string path;
    std::int64_t type;
    std::string originalPath;
  };
  const Expected expected[] = {
      {file, mod::kObjectCreated, ""},
      {file, mod::kObjectContentChanged, ""},
      {file, mod::kObjectAttributesChanged, ""},
      {renamed, mod::kObjectRenamed, file},
      {moved, mod::kObjectMoved, renamed},
      {moved, mod::kObjectDeleted, ""},
      {sub, mod::kObjectCreated, ""},
      {inner, mod::kObjectCreated, ""},
      {bytes, mod::kObjectCreated, ""},
  };
  for (const Expected& x : expected) {
    const auto found = Matching(events, x.path, x.type);
    ASSERT_EQ(found.size(), 1u) << x.path << " type " << x.type;
    const Event& e = *found[0];
    EXPECT_EQ(e.typeName, "SystemIntegrityIssue");
    EXPECT_EQ(e.json["severityName"].Bytes(), "Critical");
    EXPECT_EQ(e.Text("TaskType"), "OAFIM");
    EXPECT_EQ(e.Text("TaskName"), "System_Integrity_Monitoring");
    EXPECT_EQ(e.Number("TaskId"), 11);
    EXPECT_EQ(e.Field("OriginalPath") != nullptr, !x.originalPath.empty()) << x.path;
    if (!x.originalPath.empty()) {
      EXPECT_EQ(e.Text("OriginalPath"), x.originalPath);
      EXPECT_EQ(e.json["fields"].items[0]["name"].Bytes(), "OriginalPath");
    }
  }
  for (const Event& e : events) EXPECT_NE(e.Path(), ignored);
}

TEST_F(WatchTest, DetectionsArePrintedBesideTheEvents) {
  auto watch = StartWatch({"--detections"});
  const std::string file = m_root + "/b/seen";
  WriteFile(file, "");
  bool detected = false;
  bool reported = false;
  // Detection lines and event lines share stdout; read both kinds.
  while (!(detected && reported)) {
    auto line = watch->ReadLine(Stream::kOut);
    ASSERT_TRUE(line) << watch->Stderr();
    arvo::test::JsonValue v;
    ASSERT_TRUE(arvo::test::ParseJson(*line, v)) << *line;
    if (v.Find("detectType")) {
      EXPECT_EQ(v["detectType"].Int(), 0);
      EXPECT_EQ(v["path"].Bytes(), file);
      detected = true;
    } else {
      reported = reported || v["eventTypeName"].Bytes() == "SystemIntegrityIssue";
    }
  }
  watch->Signal(SIGINT);
  EXPECT_EQ(watch->Finish(), 0) << watch->Stderr();
}

TEST_F(WatchTest, AnAreaReachedThroughALinkIsWatched) {
  const std::string link = m_tree / "link";
  ASSERT_EQ(::symlink(m_root.c_str(), link.c_str()), 0);
  auto watch = StartWatchOn({link}, 1);
  WriteFile(m_root + "/a/f", "");
  EXPECT_TRUE(Await(*watch, link + "/a/f", mod::kObjectCreated)) << watch->Stderr();
  watch->Signal(SIGTERM);
  EXPECT_EQ(watch->Finish(), 0) << watch->Stderr();
}

TEST_F(WatchTest, ADisabledAreaIsNotWatchedAndNeedNotExist) {
  const std::string config = m_tree / "fim.toml";
  WriteFile(config, "[[area]]\npath = \"" + m_root +
                        "\"\n"
                        "[[area]]\npath = \"" +
                        m_tree / "missing" + "\"\nenabled = false\n");
  auto watch = StartWatchOn({"--config", config}, 1);
  WriteFile(m_root + "/a/f", "");
  EXPECT_TRUE(Await(*watch, m_root + "/a/f", mod::kObjectCreated)) << watch->Stderr();
  watch->Signal(SIGTERM);
  EXPECT_EQ(watch->Finish(), 0) << watch->Stderr();
}

TEST_F(WatchTest, AMoveBetweenTwoAreasKeepsItsOriginalPath) {
  const std::string a = m_root + "/a";
  const std::string b = m_root + "/b";
  auto watch = StartWatchOn({a, b}, 2);
  WriteFile(a + "/f", "");
  ASSERT_TRUE(Await(*watch, a + "/f", mod::kObjectCreated));
  ASSERT_EQ(std::rename((a + "/f").c_str(), (b + "/g").c_str()), 0);
  ASSERT_TRUE(Await(*watch, b + "/g", mod::kObjectMoved)) << watch->Stderr();
  watch->Signal(SIGTERM);
  EXPECT_EQ(watch->Finish(), 0) << watch->Stderr();
  const auto moved = Matching(watch->Events(), b + "/g", mod::kObjectMoved);
  ASSERT_EQ(moved.size(), 1u);
  EXPECT_EQ(moved[0]->Text("OriginalPath"), a + "/f");
  EXPECT_TRUE(Matching(watch->Events(), a + "/f", mod::kObjectDeleted).empty());
  EXPECT_TRUE(Matching(watch->Events(), b + "/g", mod::kObjectCreated).empty());
}

// Scope is judged on the path an object has after the change, so a rename
// to an excluded name reads as nothing at all.
TEST_F(WatchTest, ARenameToAnExcludedNameIsNotReported) {
  auto watch = StartWatch({"--exclude", "*.ignored"});
  const std::string kept = m_root + "/a/kept";
  WriteFile(kept, "");
  ASSERT_TRUE(Await(*watch, kept, mod::kObjectCreated));
  ASSERT_EQ(std::rename(kept.c_str(), (kept + ".ignored").c_str()), 0);
  ASSERT_EQ(std::rename((kept + ".ignored").c_str(), (kept + "2").c_str()), 0);
  ASSERT_TRUE(Await(*watch, kept + "2", mod::kObjectRenamed));
  watch->Signal(SIGTERM);
  EXPECT_EQ(watch->Finish(), 0) << watch->Stderr();
  for (const Event& e : watch->Events()) EXPECT_NE(e.Path(), kept + ".ignored");
  const auto renamed = Matching(watch->Events(), kept + "2", mod::kObjectRenamed);
  ASSERT_EQ(renamed.size(), 1u);
  EXPECT_EQ(renamed[0]->Text("OriginalPath"), kept + ".ignored");
}

// Whether a process holds an inotify watch on the directory `path` (its
// inode is listed in the fdinfo of one of the process's descriptors).
bool HasInotifyWatch(pid_t pid, const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  char inode[32];
  std::snprintf(inode, sizeof inode, " ino:%lx ", static_cast<unsigned long>(st.st_ino));
  std::error_code ec;
  const std::string fdinfo = "/proc/" + std::to_string(pid) + "/fdinfo";
  for (const auto& entry : std::filesystem::directory_iterator(fdinfo, ec)) {
    std::ifstream in(entry.path());
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with("inotify wd:") && line.find(inode) != std::string::npos) return true;
    }
  }
  return false;
}

// Replays events into the set of paths they say exist.
class Replay {
 public:
  // Reads events until `done(present paths)`; false at the deadline.
  bool Until(Process& p, const std::function<bool(const std::set<std::string>&)>& done) {
    return p.ReadEventsUntil([&](const std::vector<Event>& events) {
      for (; m_replayed < events.size(); ++m_replayed) Apply(events[m_replayed]);
      return done(m_present);
    });
  }

 private:
  void Apply(const Event& e) {
    const auto type = e.Number("FileModificationType");
    if (type == mod::kObjectCreated) m_present.insert(e.Path());
    if (type == mod::kObjectDeleted) m_present.erase(e.Path());
    if (type == mod::kObjectRenamed || type == mod::kObjectMoved) {
      m_present.erase(e.Text("OriginalPath"));
      m_present.insert(e.Path());
    }
  }
  std::set<std::string> m_present;
  std::size_t m_replayed = 0;
};

// A directory moved in, then, as soon as the monitor watches it (while its
// walk is still reading thousands of entries), a file in it renamed and a
// new one made under the old name: the events must account for both.
TEST_F(WatchTest, NoCreationIsLostWhenAMovedInDirectoryIsReshuffled) {
  // The race is the inotify backend's: its watches are added as it walks.
  std::vector<std::string> tail = WatchBackendArgs();
  if (!tail.empty() && tail[1] != "inotify") GTEST_SKIP() << "inotify backend only";
  if (tail.empty()) tail = {"--backend", "inotify"};
  constexpr int kRounds = 20;
  constexpr int kFiller = 3000;
  const std::string parked = m_tree / "parked";
  ASSERT_EQ(::mkdir(parked.c_str(), 0755), 0);
  for (int k = 0; k < kFiller; ++k) WriteFile(parked + "/filler" + std::to_string(k), "");
  // The filler slows the walk down without filling the output pipe.
  tail.insert(tail.end(), {"--exclude", "filler*", m_root});
  auto watch = StartWatchOn(tail, 1);
  Replay replay;
  int lost = 0;
  for (int round = 0; round < kRounds; ++round) {
    const std::string in = m_root + "/d" + std::to_string(round);
    WriteFile(parked + "/f", "");
    ASSERT_EQ(std::rename(parked.c_str(), in.c_str()), 0);
    const auto deadline = Process::Deadline();
    while (!HasInotifyWatch(watch->Pid(), in)) ASSERT_LT(Clock::now(), deadline);
    ASSERT_EQ(std::rename((in + "/f").c_str(), (in + "/g").c_str()), 0);
    WriteFile(in + "/f", "");
    // Events keep their order: once the sentinel's creation is in, so is
    // every event of the round.
    const std::string sentinel = m_root + "/sentinel" + std::to_string(round);
    WriteFile(sentinel, "");
    bool complete = false;
    ASSERT_TRUE(replay.Until(*watch, [&](const std::set<std::string>& present) {
      complete = present.contains(in) && present.contains(in + "/f") && present.contains(in + "/g");
      return present.contains(sentinel);
    }));
    lost += !complete;
    // Moved out again (and reported so) before the next round reuses it.
    ASSERT_EQ(std::rename(in.c_str(), parked.c_str()), 0);
    ASSERT_EQ(::unlink((parked + "/f").c_str()), 0);
    ASSERT_EQ(::unlink((parked + "/g").c_str()), 0);
    ASSERT_TRUE(replay.Until(
        *watch, [&](const std::set<std::string>& present) { return !present.contains(in); }));
  }
  EXPECT_EQ(lost, 0) << "rounds with a lost creation, of " << kRounds;
  watch->Signal(SIGTERM);
  EXPECT_EQ(watch->Finish(), 0) << watch->Stderr();
}

}  // namespace
}  // namespace arvo::e2e
