#include "host/watch/inotify_watch_tree.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <utility>

#include "host/util/test_temp_dir.h"
#include "orn/simple_object.h"
#include "pax/enumerations.h"
#include "tests/fake_host.h"

namespace arvo::host {
namespace {

// Behaves like the kernel (one descriptor per directory, the same one when a
// directory is watched again) and runs out of watches at `limit`.
class FakeRegistrar final : public IWatchRegistrar {
 public:
  std::size_t limit = 1000;
  std::map<std::pair<dev_t, ino_t>, int> live;

  int AddWatch(int dirFd, const std::string&, bool) override {
    struct stat st;
    if (::fstat(dirFd, &st) != 0) return -errno;
    const auto key = std::make_pair(st.st_dev, st.st_ino);
    if (const auto it = live.find(key); it != live.end()) return it->second;
    if (live.size() >= limit) return -ENOSPC;
    return live[key] = m_next++;
  }
  void RemoveWatch(int wd) override {
    std::erase_if(live, [wd](const auto& entry) { return entry.second == wd; });
  }
  int WdOf(const std::string& path) const {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return -1;
    const auto it = live.find({st.st_dev, st.st_ino});
    return it == live.end() ? -1 : it->second;
  }

 private:
  int m_next = 1;
};

class NullReceiver final : public orn::SimpleObject<pax::IInotifyEventsReceiver> {
 public:
  orn::result_t OnEvent(const pax::InotifyEvent&) override { return orn::errors::kOk; }
  orn::result_t GetName(orn::types::string8_t& name) const override {
    name = "null";
    return orn::errors::kOk;
  }
};

class InotifyWatchTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"a", "a/x", "b", "b/x", "c", "c/x"}) {
      ASSERT_EQ(::mkdir((dir / d).c_str(), 0755), 0);
    }
  }
  test::TempDir dir;
  FakeRegistrar registrar;
  orn::RefPtr<test::RecordingTracer> tracer = orn::MakeSimple<test::RecordingTracer>();
  InotifyWatchTree tree{registrar, tracer.Get()};
  orn::RefPtr<NullReceiver> first = orn::MakeSimple<NullReceiver>();
  orn::RefPtr<NullReceiver> second = orn::MakeSimple<NullReceiver>();
};

TEST_F(InotifyWatchTreeTest, RunningOutOfWatchesKeepsWhatFitsAndNotesTheLoss) {
  std::size_t directories = 0;
  ASSERT_EQ(tree.Subscribe(first.Get(), dir / "a", IN_CREATE, &directories), 0);
  EXPECT_EQ(directories, 2u);
  // Not even its root fits: the subscription is undone.
  registrar.limit = registrar.live.size();
  EXPECT_LT(tree.Subscribe(second.Get(), dir / "b", IN_CREATE, &directories), 0);
  EXPECT_EQ(tree.WatchCount(), 2u);
  // The root and two of b, b/x, c, c/x fit: those stay watched.
  registrar.limit = registrar.live.size() + 3;
  EXPECT_EQ(tree.Subscribe(second.Get(), dir.Path(), IN_CREATE, &directories), 0);
  EXPECT_EQ(registrar.live.size(), 5u);
  const auto errors = tracer->Texts(orn::kTraceLevelError);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_NE(errors[0].find("/proc/sys/fs/inotify/max_user_watches"), std::string::npos);
  EXPECT_NE(errors[0].find("sysctl fs.inotify.max_user_watches="), std::string::npos);
  const auto notices = tree.TakeNotices();
  ASSERT_EQ(notices.size(), 2u);
  EXPECT_EQ(notices[0].area, dir / "b");
  EXPECT_EQ(notices[1].area, dir.Path());
  EXPECT_EQ(notices[1].reason, CoverageReason::kWatchLimit);
  EXPECT_NE(notices[1].path.find(dir.Path() + "/"), std::string::npos);
  EXPECT_EQ(tree.Unsubscribe(first.Get()).size(), 1u);
  EXPECT_EQ(tree.Unsubscribe(second.Get()).size(), 1u);
  EXPECT_TRUE(registrar.live.empty());
}

TEST_F(InotifyWatchTreeTest, RunningOutOfWatchesInANewDirectoryIsReported) {
  ASSERT_EQ(tree.Subscribe(first.Get(), dir.Path(), IN_CREATE, nullptr), 0);
  ASSERT_EQ(::mkdir((dir / "new").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((dir / "new/deep").c_str(), 0755), 0);
  registrar.limit = registrar.live.size() + 1;
  RawInotifyEvent created;
  created.wd = registrar.WdOf(dir.Path());
  created.mask = IN_CREATE | IN_ISDIR;
  created.name = "new";
  std::vector<InotifyDelivery> out;
  tree.Translate(created, out);
  ASSERT_GE(out.size(), 2u);
  EXPECT_EQ(out[0].event.mask, pax::modification::kObjectCreated);
  EXPECT_EQ(out[0].event.path, dir / "new");
  EXPECT_NE(out[1].event.error.find("watch limit reached"), std::string::npos);
  EXPECT_GE(registrar.WdOf(dir / "new"), 0);  // what fitted stays watched
  const auto notices = tree.TakeNotices();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].area, dir.Path());
  EXPECT_EQ(notices[0].reason, CoverageReason::kWatchLimit);
  EXPECT_EQ(notices[0].path, dir / "new/deep");
}

TEST_F(InotifyWatchTreeTest, OverflowIsNotedOncePerArea) {
  ASSERT_EQ(tree.Subscribe(first.Get(), dir / "a", IN_CREATE, nullptr), 0);
  ASSERT_EQ(tree.Subscribe(second.Get(), dir / "a", IN_CREATE, nullptr), 0);
  ASSERT_EQ(tree.Subscribe(second.Get(), dir / "b", IN_CREATE, nullptr), 0);
  RawInotifyEvent overflow;
  overflow.wd = -1;
  overflow.mask = IN_Q_OVERFLOW;
  std::vector<InotifyDelivery> out;
  tree.Translate(overflow, out);
  EXPECT_EQ(out.size(), 3u);  // an error to each subscription
  const auto notices = tree.TakeNotices();
  ASSERT_EQ(notices.size(), 2u);
  EXPECT_EQ(notices[0].area, dir / "a");
  EXPECT_EQ(notices[1].area, dir / "b");
  EXPECT_EQ(notices[1].reason, CoverageReason::kQueueOverflow);
  EXPECT_TRUE(tree.TakeNotices().empty());
}

TEST_F(InotifyWatchTreeTest, ACatchUpEntryIsReportedOnceUntilTheQueueIsDrained) {
  ASSERT_EQ(tree.Subscribe(first.Get(), dir.Path(), IN_CREATE | IN_DELETE, nullptr), 0);
  ASSERT_EQ(::mkdir((dir / "new").c_str(), 0755), 0);
  ASSERT_EQ(::close(::creat((dir / "new/f").c_str(), 0644)), 0);
  auto record = [&](const std::string& parent, std::uint32_t mask, const char* name) {
    RawInotifyEvent r;
    r.wd = registrar.WdOf(parent);
    r.mask = mask;
    r.name = name;
    std::vector<InotifyDelivery> out;
    tree.Translate(r, out);
    return out;
  };
  // The directory's record starts a catch-up walk that finds the file...
  const auto created = record(dir.Path(), IN_CREATE | IN_ISDIR, "new");
  ASSERT_EQ(created.size(), 2u);
  EXPECT_EQ(created[1].event.path, dir / "new/f");
  // ...so the file's own record, queued meanwhile, repeats nothing.
  EXPECT_TRUE(record(dir / "new", IN_CREATE, "f").empty());
  // A deletion and a new creation under the same name are real changes.
  EXPECT_EQ(record(dir / "new", IN_DELETE, "f").size(), 1u);
  EXPECT_EQ(record(dir / "new", IN_CREATE, "f").size(), 1u);
  // Once the queue has been drained, catch-up entries are forgotten.
  ASSERT_EQ(::close(::creat((dir / "new/g").c_str(), 0644)), 0);
  ASSERT_EQ(::mkdir((dir / "other").c_str(), 0755), 0);
  ASSERT_EQ(::close(::creat((dir / "other/g").c_str(), 0644)), 0);
  EXPECT_EQ(record(dir.Path(), IN_CREATE | IN_ISDIR, "other").size(), 2u);
  tree.ForgetCatchUp();
  EXPECT_EQ(record(dir / "other", IN_CREATE, "g").size(), 1u);
}

// The records of one rename, joined as the reader hands them out.
RawInotifyEvent JoinedMove(int wd, const char* name, int toWd, const char* toName,
                           bool isDirectory = false) {
  RawInotifyEvent r;
  r.wd = wd;
  r.mask = IN_MOVED_FROM | (isDirectory ? IN_ISDIR : 0);
  r.name = name;
  r.toWd = toWd;
  r.toName = toName;
  return r;
}

TEST_F(InotifyWatchTreeTest, ARenameBeforeTheQueueDrainsLeavesTheOldNameFreeForANewObject) {
  ASSERT_EQ(tree.Subscribe(first.Get(), dir.Path(), 0x3C6, nullptr), 0);
  // Moved in with a file and a directory inside: the catch-up walk finds both.
  ASSERT_EQ(::mkdir((dir / "in").c_str(), 0755), 0);
  ASSERT_EQ(::close(::creat((dir / "in/f").c_str(), 0644)), 0);
  ASSERT_EQ(::mkdir((dir / "in/d").c_str(), 0755), 0);
  ASSERT_EQ(::close(::creat((dir / "in/d/x").c_str(), 0644)), 0);
  auto translate = [&](const RawInotifyEvent& r) {
    std::vector<InotifyDelivery> out;
    tree.Translate(r, out);
    return out;
  };
  auto record = [&](const std::string& parent, std::uint32_t mask, const char* name) {
    RawInotifyEvent r;
    r.wd = registrar.WdOf(parent);
    r.mask = mask;
    r.name = name;
    return translate(r);
  };
  ASSERT_EQ(record(dir.Path(), IN_MOVED_TO | IN_ISDIR, "in").size(), 4u);
  // Both renamed, then new objects made under the old names, all before the
  // queue drained: the new objects' records are the only news of them.
  ASSERT_EQ(::rename((dir / "in/f").c_str(), (dir / "in/g").c_str()), 0);
  ASSERT_EQ(::close(::creat((dir / "in/f").c_str(), 0644)), 0);
  ASSERT_EQ(::rename((dir / "in/d").c_str(), (dir / "in/e").c_str()), 0);
  ASSERT_EQ(::mkdir((dir / "in/d").c_str(), 0755), 0);
  const int in = registrar.WdOf(dir / "in");
  ASSERT_EQ(translate(JoinedMove(in, "f", in, "g")).size(), 1u);
  const auto file = record(dir / "in", IN_CREATE, "f");
  ASSERT_EQ(file.size(), 1u);
  EXPECT_EQ(file[0].event.mask, pax::modification::kObjectCreated);
  EXPECT_EQ(file[0].event.path, dir / "in/f");
  ASSERT_EQ(translate(JoinedMove(in, "d", in, "e", true)).size(), 1u);
  const auto directory = record(dir / "in", IN_CREATE | IN_ISDIR, "d");
  ASSERT_EQ(directory.size(), 1u);
  EXPECT_EQ(directory[0].event.path, dir / "in/d");
}

TEST_F(InotifyWatchTreeTest, AMoveBetweenTwoTreesOfOneReceiverIsOneMove) {
  ASSERT_EQ(tree.Subscribe(first.Get(), dir / "a", 0x3C6, nullptr), 0);
  ASSERT_EQ(tree.Subscribe(first.Get(), dir / "b", 0x3C6, nullptr), 0);
  ASSERT_EQ(tree.Subscribe(second.Get(), dir / "b", 0x3C6, nullptr), 0);
  const int a = registrar.WdOf(dir / "a");
  const int b = registrar.WdOf(dir / "b");
  auto translate = [&](const RawInotifyEvent& r) {
    std::vector<InotifyDelivery> out;
    tree.Translate(r, out);
    return out;
  };
  struct Seen {
    pax::IInotifyEventsReceiver* receiver;
    std::uint32_t mask;
    std::string path;
    std::string formerPath;
    bool operator==(const Seen&) const = default;
  };
  auto seen = [&](const std::vector<InotifyDelivery>& out) {
    std::vector<Seen> all;
    for (const InotifyDelivery& d : out) {
      all.push_back(
          {tree.ReceiverOf(d.subscription).Get(), d.event.mask, d.event.path, d.event.formerPath});
    }
    return all;
  };
  namespace mod = pax::modification;
  // Into b: one move for the receiver that watches both, a creation for the
  // one that watches b only.
  EXPECT_EQ(seen(translate(JoinedMove(a, "f", b, "g"))),
            (std::vector<Seen>{{first.Get(), mod::kObjectMoved, dir / "b/g", dir / "a/f"},
                               {second.Get(), mod::kObjectCreated, dir / "b/g", ""}}));
  // Out of b: the move again, and a deletion for the other receiver.
  EXPECT_EQ(seen(translate(JoinedMove(b, "g", a, "f"))),
            (std::vector<Seen>{{first.Get(), mod::kObjectMoved, dir / "a/f", dir / "b/g"},
                               {second.Get(), mod::kObjectDeleted, dir / "b/g", ""}}));
  // A directory keeps its watch and is found under its new path.
  ASSERT_EQ(::rename((dir / "a/x").c_str(), (dir / "b/y").c_str()), 0);
  const int moved = registrar.WdOf(dir / "b/y");
  const auto out = translate(JoinedMove(a, "x", b, "y", true));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].event.formerPath, dir / "a/x");
  EXPECT_EQ(registrar.WdOf(dir / "b/y"), moved);
  RawInotifyEvent inside;
  inside.wd = moved;
  inside.mask = IN_CREATE;
  inside.name = "z";
  EXPECT_EQ(seen(translate(inside)),
            (std::vector<Seen>{{first.Get(), mod::kObjectCreated, dir / "b/y/z", ""},
                               {second.Get(), mod::kObjectCreated, dir / "b/y/z", ""}}));
}

}  // namespace
}  // namespace arvo::host
