// arvo-fim watch on a real temporary tree: each change becomes one event
// with the right fields; excluded objects produce none.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

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
    std::vector<std::string> args = {"watch", "--format", "json"};
    for (const std::string& arg : WatchBackendArgs()) args.push_back(arg);
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(m_root);
    auto p = std::make_unique<Process>(args, Env());
    EXPECT_TRUE(p->WaitForStderr("arvo-fim: watching 1 area(s)")) << p->Stderr();
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

}  // namespace
}  // namespace arvo::e2e
