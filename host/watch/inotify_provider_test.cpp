#include "host/watch/inotify_provider.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "host/util/scoped_fd.h"
#include "host/util/test_temp_dir.h"
#include "host/watch/inotify_limits.h"
#include "orn/simple_object.h"
#include "pax/enumerations.h"
#include "tests/fake_host.h"

namespace arvo::host {
namespace {

namespace mod = pax::modification;
using Event = pax::InotifyEvent;
constexpr std::uint32_t kAllKinds = 0x3C6;
// Bounds a wait so that a missing event fails the test instead of hanging it.
constexpr auto kPatience = std::chrono::seconds(20);

class Recorder final : public orn::SimpleObject<pax::IInotifyEventsReceiver> {
 public:
  // Runs on the delivery thread before the event is recorded.
  std::function<void(const Event&)> hook;

  orn::result_t OnEvent(const Event& event) override {
    if (hook) hook(event);
    {
      std::lock_guard lock(m_mutex);
      m_events.push_back(event);
    }
    m_changed.notify_all();
    return orn::errors::kOk;
  }
  orn::result_t GetName(orn::types::string8_t& name) const override {
    name = "recorder";
    return orn::errors::kOk;
  }

  // Waits for an event `code` at `path` and returns it; a failure of the
  // test when none comes.
  Event WaitFor(std::uint32_t code, const std::string& path) {
    Event found;
    const bool came = WaitUntil([&](const std::vector<Event>& events) {
      for (const Event& e : events) {
        if (e.mask == code && e.path == path && e.error.empty()) return found = e, true;
      }
      return false;
    });
    if (!came) ADD_FAILURE() << "no event " << code << " for " << path;
    return found;
  }
  bool WaitForError(const std::string& needle) {
    return WaitUntil([&](const std::vector<Event>& events) {
      return std::any_of(events.begin(), events.end(),
                         [&](const Event& e) { return e.error.find(needle) != std::string::npos; });
    });
  }
  bool WaitForCount(std::size_t count) {
    return WaitUntil([&](const std::vector<Event>& events) { return events.size() >= count; });
  }
  std::vector<Event> Events() const {
    std::lock_guard lock(m_mutex);
    return m_events;
  }
  std::size_t Count(std::uint32_t code, const std::string& path) const {
    std::size_t n = 0;
    for (const Event& e : Events()) n += e.mask == code && e.path == path;
    return n;
  }

 private:
  bool WaitUntil(const std::function<bool(const std::vector<Event>&)>& done) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] { return done(m_events); });
  }
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Event> m_events;
};

std::uint32_t Refs(orn::IObject* object) {
  object->AddRef();
  return object->Release();
}

void WriteFile(const std::string& path, const std::string& data = "x") {
  ScopedFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  ASSERT_TRUE(fd.Valid()) << path;
  ASSERT_EQ(WriteAll(fd.Get(), data.data(), data.size()), 0);
}

// The coverage notices the provider gives, for tests to wait on.
class NoticeLog {
 public:
  CoverageObserver Observer() {
    return [this](const CoverageNotice& notice) {
      {
        std::lock_guard lock(m_mutex);
        m_notices.push_back(notice);
      }
      m_changed.notify_all();
    };
  }
  bool WaitFor(CoverageReason reason, const std::string& area) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] {
      return std::any_of(m_notices.begin(), m_notices.end(), [&](const CoverageNotice& n) {
        return n.reason == reason && n.area == area;
      });
    });
  }
  std::size_t Count(CoverageReason reason) const {
    std::lock_guard lock(m_mutex);
    return std::count_if(m_notices.begin(), m_notices.end(),
                         [&](const CoverageNotice& n) { return n.reason == reason; });
  }

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<CoverageNotice> m_notices;
};

class InotifyProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(CreateInotifyProvider(tracer.Get(), provider, notices.Observer(), &coverage), 0);
  }

  std::string P(const std::string& relative) const { return dir / relative; }
  orn::RefPtr<Recorder> Watch(const std::string& path, std::uint32_t mask = kAllKinds) {
    auto recorder = orn::MakeSimple<Recorder>();
    EXPECT_EQ(provider->Subscribe(recorder.Get(), path, mask), 0) << path;
    return recorder;
  }

  test::TempDir dir;
  test::TempDir outside;
  NoticeLog notices;  // outlives the provider, whose thread tells it
  orn::RefPtr<test::RecordingTracer> tracer = orn::MakeSimple<test::RecordingTracer>();
  orn::RefPtr<pax::IInotifyEventsProvider> provider;
  std::shared_ptr<InotifyCoverage> coverage;
};

TEST_F(InotifyProviderTest, ReportsEachKindOfChangeWithItsCode) {
  ASSERT_EQ(::mkdir(P("sub").c_str(), 0755), 0);
  auto r = Watch(dir.Path());
  WriteFile(P("f"));
  EXPECT_FALSE(r->WaitFor(mod::kObjectCreated, P("f")).isDirectory);
  EXPECT_EQ(r->WaitFor(mod::kObjectContentChanged, P("f")).mask, mod::kObjectContentChanged);
  ASSERT_EQ(::chmod(P("f").c_str(), 0600), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectAttributesChanged, P("f")).mask, mod::kObjectAttributesChanged);
  ASSERT_EQ(::rename(P("f").c_str(), P("g").c_str()), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectRenamed, P("g")).formerPath, P("f"));
  ASSERT_EQ(::rename(P("g").c_str(), P("sub/g").c_str()), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectMoved, P("sub/g")).formerPath, P("g"));
  ASSERT_EQ(::unlink(P("sub/g").c_str()), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectDeleted, P("sub/g")).mask, mod::kObjectDeleted);
  ASSERT_EQ(::rmdir(P("sub").c_str()), 0);
  EXPECT_TRUE(r->WaitFor(mod::kObjectDeleted, P("sub")).isDirectory);
}

TEST_F(InotifyProviderTest, NewDirectoryAndWhatWasMadeInItAtOnceAreReported) {
  auto r = Watch(dir.Path());
  for (const std::string top : {"a", "b", "c"}) {
    ASSERT_EQ(::mkdir(P(top).c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(P(top + "/in").c_str(), 0755), 0);
    WriteFile(P(top + "/in/f"));
    EXPECT_TRUE(r->WaitFor(mod::kObjectCreated, P(top)).isDirectory);
    EXPECT_TRUE(r->WaitFor(mod::kObjectCreated, P(top + "/in")).isDirectory);
    EXPECT_EQ(r->WaitFor(mod::kObjectCreated, P(top + "/in/f")).mask, mod::kObjectCreated);
    ASSERT_EQ(::chmod(P(top + "/in/f").c_str(), 0600), 0);  // the new directory is watched
    EXPECT_EQ(r->WaitFor(mod::kObjectAttributesChanged, P(top + "/in/f")).mask,
              mod::kObjectAttributesChanged);
  }
}

TEST_F(InotifyProviderTest, RenamedDirectoryKeepsItsSubtreeAndPaths) {
  ASSERT_EQ(::mkdir(P("d").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(P("d/sub").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(P("x").c_str(), 0755), 0);
  auto r = Watch(dir.Path());
  ASSERT_EQ(::rename(P("d").c_str(), P("e").c_str()), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectRenamed, P("e")).formerPath, P("d"));
  WriteFile(P("e/sub/f"));
  EXPECT_EQ(r->WaitFor(mod::kObjectCreated, P("e/sub/f")).mask, mod::kObjectCreated);
  ASSERT_EQ(::rename(P("e").c_str(), P("x/e").c_str()), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectMoved, P("x/e")).formerPath, P("e"));
  WriteFile(P("x/e/sub/h"));
  EXPECT_EQ(r->WaitFor(mod::kObjectCreated, P("x/e/sub/h")).mask, mod::kObjectCreated);
}

TEST_F(InotifyProviderTest, MovesAcrossTheTreeBoundaryReadAsDeletionAndCreation) {
  WriteFile(P("f"));
  ASSERT_EQ(::mkdir((outside / "in").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((outside / "in/deep").c_str(), 0755), 0);
  WriteFile(outside / "in/deep/f");
  auto r = Watch(dir.Path());

  ASSERT_EQ(::rename(P("f").c_str(), (outside / "f").c_str()), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectDeleted, P("f")).mask, mod::kObjectDeleted);

  ASSERT_EQ(::rename((outside / "in").c_str(), P("in").c_str()), 0);
  EXPECT_TRUE(r->WaitFor(mod::kObjectCreated, P("in")).isDirectory);
  EXPECT_TRUE(r->WaitFor(mod::kObjectCreated, P("in/deep")).isDirectory);
  EXPECT_EQ(r->WaitFor(mod::kObjectCreated, P("in/deep/f")).mask, mod::kObjectCreated);
  WriteFile(P("in/deep/f"), "changed");  // moved in, so watched
  EXPECT_EQ(r->WaitFor(mod::kObjectContentChanged, P("in/deep/f")).mask,
            mod::kObjectContentChanged);

  ASSERT_EQ(::rename(P("in").c_str(), (outside / "back").c_str()), 0);
  EXPECT_TRUE(r->WaitFor(mod::kObjectDeleted, P("in")).isDirectory);
  WriteFile(outside / "back/deep/g");  // moved out, so no longer watched
  WriteFile(P("sentinel"));
  r->WaitFor(mod::kObjectCreated, P("sentinel"));
  EXPECT_EQ(r->Count(mod::kObjectCreated, P("in/deep/g")), 0u);
}

TEST_F(InotifyProviderTest, MovesBetweenTwoTreesOfOneReceiverArePaired) {
  ASSERT_EQ(::mkdir(P("a").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(P("b").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(P("a/d").c_str(), 0755), 0);
  WriteFile(P("a/f"));
  auto both = Watch(P("a"));
  ASSERT_EQ(provider->Subscribe(both.Get(), P("b"), kAllKinds), 0);
  ASSERT_EQ(::rename(P("a/f").c_str(), P("b/g").c_str()), 0);
  EXPECT_EQ(both->WaitFor(mod::kObjectMoved, P("b/g")).formerPath, P("a/f"));
  ASSERT_EQ(::rename(P("a/d").c_str(), P("b/d").c_str()), 0);
  EXPECT_EQ(both->WaitFor(mod::kObjectMoved, P("b/d")).formerPath, P("a/d"));
  WriteFile(P("b/d/inside"));  // still watched, under its new path
  both->WaitFor(mod::kObjectCreated, P("b/d/inside"));
  EXPECT_EQ(both->Count(mod::kObjectDeleted, P("a/f")), 0u);
  EXPECT_EQ(both->Count(mod::kObjectCreated, P("b/g")), 0u);
  EXPECT_EQ(both->Count(mod::kObjectDeleted, P("a/d")), 0u);
}

TEST_F(InotifyProviderTest, ARootGivenThroughALinkIsWatchedButNoLinkBelowIt) {
  ASSERT_EQ(::mkdir(P("real").c_str(), 0755), 0);
  ASSERT_EQ(::symlink(P("real").c_str(), P("link").c_str()), 0);
  ASSERT_EQ(::symlink(outside.Path().c_str(), P("real/out").c_str()), 0);
  auto r = Watch(P("link"));
  WriteFile(outside / "beyond");
  WriteFile(P("real/f"));
  r->WaitFor(mod::kObjectCreated, P("link/f"));
  for (const Event& e : r->Events()) EXPECT_EQ(e.path, P("link/f"));
}

TEST_F(InotifyProviderTest, OverlappingSubscriptionsGiveEachReceiverItsEventOnce) {
  ASSERT_EQ(::mkdir(P("sub").c_str(), 0755), 0);
  auto whole = Watch(dir.Path());
  auto part = Watch(P("sub"));
  ASSERT_EQ(provider->Subscribe(whole.Get(), P("sub"), kAllKinds), 0);  // overlaps its own
  WriteFile(P("sub/f"));
  WriteFile(P("g"));
  whole->WaitFor(mod::kObjectCreated, P("g"));
  part->WaitFor(mod::kObjectCreated, P("sub/f"));
  WriteFile(P("sub/sentinel"));
  part->WaitFor(mod::kObjectCreated, P("sub/sentinel"));
  whole->WaitFor(mod::kObjectCreated, P("sub/sentinel"));
  EXPECT_EQ(whole->Count(mod::kObjectCreated, P("sub/f")), 1u);
  EXPECT_EQ(part->Count(mod::kObjectCreated, P("sub/f")), 1u);
  EXPECT_EQ(part->Count(mod::kObjectCreated, P("g")), 0u);
}

TEST_F(InotifyProviderTest, DeliversOnlyTheKindsAskedFor) {
  WriteFile(P("f"));
  auto r = Watch(dir.Path(), IN_CREATE);
  WriteFile(P("f"), "changed");
  ASSERT_EQ(::chmod(P("f").c_str(), 0600), 0);
  ASSERT_EQ(::rename(P("f").c_str(), P("f2").c_str()), 0);
  ASSERT_EQ(::unlink(P("f2").c_str()), 0);
  WriteFile(P("sentinel"));
  r->WaitFor(mod::kObjectCreated, P("sentinel"));
  ASSERT_EQ(r->Events().size(), 1u);
}

TEST_F(InotifyProviderTest, UnsubscribeInsideOnEventEndsDeliveryWithoutDeadlock) {
  auto quitter = orn::MakeSimple<Recorder>();
  pax::IInotifyEventsReceiver* self = quitter.Get();
  quitter->hook = [&, self](const Event&) { EXPECT_GE(provider->Unsubscribe(self), 0); };
  ASSERT_EQ(provider->Subscribe(quitter.Get(), dir.Path(), kAllKinds), 0);
  auto witness = Watch(dir.Path());
  WriteFile(P("a"));
  WriteFile(P("b"));
  witness->WaitFor(mod::kObjectCreated, P("b"));
  EXPECT_EQ(quitter->Events().size(), 1u);
  EXPECT_EQ(Refs(quitter.Get()), 1u);  // the provider let go
}

TEST_F(InotifyProviderTest, NoCallStartsAfterUnsubscribeReturnsWhileEventsFlow) {
  auto r = orn::MakeSimple<Recorder>();
  std::atomic<bool> closed{false};
  std::atomic<bool> late{false};
  std::atomic<int> running{0};
  r->hook = [&](const Event&) {
    if (closed.load()) late.store(true);
    running.fetch_add(1);
    for (int i = 0; i < 200; ++i) std::this_thread::yield();  // a call that takes a while
    running.fetch_sub(1);
  };
  ASSERT_EQ(provider->Subscribe(r.Get(), dir.Path(), kAllKinds), 0);
  auto witness = Watch(dir.Path());
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; !stop.load(); ++i) WriteFile(P("w" + std::to_string(i % 8)));
  });
  std::thread churn([&] {  // subscriptions come and go while events flow
    auto other = orn::MakeSimple<Recorder>();
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(provider->Subscribe(other.Get(), dir.Path(), kAllKinds), 0);
      EXPECT_GE(provider->Unsubscribe(other.Get()), 0);
    }
  });
  ASSERT_TRUE(r->WaitForCount(50));
  while (running.load() == 0) std::this_thread::yield();  // unsubscribe during a call
  ASSERT_EQ(provider->Unsubscribe(r.Get()), 0);
  EXPECT_EQ(running.load(), 0);
  closed.store(true);
  const std::size_t seen = witness->Events().size();
  EXPECT_TRUE(witness->WaitForCount(seen + 50));
  stop.store(true);
  writer.join();
  churn.join();
  EXPECT_FALSE(late.load());
  EXPECT_EQ(Refs(r.Get()), 1u);
}

TEST_F(InotifyProviderTest, NamesPassThroughAsBytes) {
  auto r = Watch(dir.Path());
  for (const std::string name : {"\xff\xfe-not-utf8", "line\nbreak", "quote\"'s \\ back"}) {
    WriteFile(P(name));
    EXPECT_EQ(r->WaitFor(mod::kObjectCreated, P(name)).path, P(name));
  }
  ASSERT_EQ(::rename(P("\xff\xfe-not-utf8").c_str(), P("\x80renamed").c_str()), 0);
  EXPECT_EQ(r->WaitFor(mod::kObjectRenamed, P("\x80renamed")).formerPath, P("\xff\xfe-not-utf8"));
}

TEST_F(InotifyProviderTest, RefusesBadSubscriptionsCleanly) {
  auto r = orn::MakeSimple<Recorder>();
  WriteFile(P("file"));
  EXPECT_LT(provider->Subscribe(r.Get(), P("missing"), kAllKinds), 0);
  EXPECT_LT(provider->Subscribe(r.Get(), P("file"), kAllKinds), 0);
  EXPECT_LT(provider->Subscribe(nullptr, dir.Path(), kAllKinds), 0);
  EXPECT_LT(provider->Subscribe(r.Get(), "", kAllKinds), 0);
  EXPECT_LT(provider->Subscribe(r.Get(), dir.Path(), 0), 0);
  EXPECT_TRUE(tracer->Contains("Cannot watch '" + P("missing") + "'", orn::kTraceLevelError));
  EXPECT_GE(provider->Unsubscribe(r.Get()), 0);
  EXPECT_EQ(Refs(r.Get()), 1u);
}

TEST_F(InotifyProviderTest, DeletedOrMovedRootIsReportedAndForgotten) {
  ASSERT_EQ(::mkdir(P("a").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(P("b").c_str(), 0755), 0);
  auto ra = Watch(P("a"));
  auto rb = Watch(P("b"));
  auto witness = Watch(dir.Path());
  ASSERT_EQ(::rmdir(P("a").c_str()), 0);
  EXPECT_TRUE(ra->WaitFor(mod::kObjectDeleted, P("a")).isDirectory);
  ASSERT_EQ(::rename(P("b").c_str(), P("b2").c_str()), 0);
  EXPECT_TRUE(rb->WaitFor(mod::kObjectDeleted, P("b")).isDirectory);
  WriteFile(P("b2/x"));
  witness->WaitFor(mod::kObjectCreated, P("b2/x"));
  for (const Event& e : rb->Events()) EXPECT_EQ(e.path, P("b"));
  EXPECT_TRUE(notices.WaitFor(CoverageReason::kRootGone, P("a")));
  EXPECT_TRUE(notices.WaitFor(CoverageReason::kRootGone, P("b")));
  EXPECT_EQ(provider->Unsubscribe(ra.Get()), 0);
  EXPECT_EQ(provider->Unsubscribe(rb.Get()), 0);
}

TEST_F(InotifyProviderTest, LostRootIsWatchedAgainOnceItExists) {
  ASSERT_EQ(::mkdir(P("a").c_str(), 0755), 0);
  auto ra = Watch(P("a"));
  ASSERT_EQ(::rmdir(P("a").c_str()), 0);
  ASSERT_TRUE(notices.WaitFor(CoverageReason::kRootGone, P("a")));
  coverage->RewatchLostRoots();  // not there yet: nothing to watch
  EXPECT_EQ(notices.Count(CoverageReason::kRootBack), 0u);
  ASSERT_EQ(::mkdir(P("a").c_str(), 0755), 0);
  coverage->RewatchLostRoots();  // tells on this thread, before returning
  EXPECT_EQ(notices.Count(CoverageReason::kRootBack), 1u);
  WriteFile(P("a/x"));
  ra->WaitFor(mod::kObjectCreated, P("a/x"));
  coverage->RewatchLostRoots();  // watched: nothing to tell
  EXPECT_EQ(notices.Count(CoverageReason::kRootBack), 1u);
}

TEST_F(InotifyProviderTest, QueueOverflowReachesEveryReceiver) {
  const auto queued = ReadInotifyLimit("/proc/sys/fs/inotify/max_queued_events");
  if (!queued || *queued > 200000) GTEST_SKIP() << "queue too large to overflow quickly";
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;
  bool released = false;
  auto blocked = orn::MakeSimple<Recorder>();
  blocked->hook = [&](const Event&) {  // holds the delivery thread until released
    std::unique_lock lock(mutex);
    entered = true;
    changed.notify_all();
    changed.wait(lock, [&] { return released; });
  };
  ASSERT_EQ(provider->Subscribe(blocked.Get(), dir.Path(), kAllKinds), 0);
  auto other = Watch(dir.Path());
  WriteFile(P("trigger"));
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kPatience, [&] { return entered; }));
  }
  ScopedFd a(::open(P("a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ScopedFd b(::open(P("b").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  for (long i = 0; i <= *queued; ++i) ASSERT_EQ(::write((i % 2 ? a : b).Get(), "x", 1), 1);
  {
    std::lock_guard lock(mutex);
    released = true;
  }
  changed.notify_all();
  EXPECT_TRUE(blocked->WaitForError("events were lost under " + dir.Path()));
  EXPECT_TRUE(other->WaitForError("events were lost under " + dir.Path()));
  EXPECT_TRUE(notices.WaitFor(CoverageReason::kQueueOverflow, dir.Path()));
}

// Renames each long component to a short one so that the directory can be
// removed by path afterwards.
void ShortenChain(int fd, const std::string& name, int depth) {
  for (int i = 0; i < depth; ++i) {
    ASSERT_EQ(::renameat(fd, name.c_str(), fd, "s"), 0);
    const int next = ::openat(fd, "s", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(next, 0);
    if (i > 0) ::close(fd);
    fd = next;
  }
  ::close(fd);
}

TEST_F(InotifyProviderTest, PathsLongerThanPathMaxAreWatched) {
  const std::string name(200, 'n');
  const int depth = 25;  // about 5000 bytes
  ScopedFd top(::open(dir.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ScopedFd fd(::dup(top.Get()));
  std::string deep = dir.Path();
  for (int i = 0; i < depth; ++i) {
    ASSERT_EQ(::mkdirat(fd.Get(), name.c_str(), 0755), 0);
    fd.Reset(::openat(fd.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(fd.Valid());
    deep += "/" + name;
  }
  auto whole = Watch(dir.Path());
  auto bottom = Watch(deep);
  ScopedFd leaf(::openat(fd.Get(), "leaf", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_TRUE(leaf.Valid());
  EXPECT_EQ(whole->WaitFor(mod::kObjectCreated, deep + "/leaf").mask, mod::kObjectCreated);
  EXPECT_EQ(bottom->WaitFor(mod::kObjectCreated, deep + "/leaf").mask, mod::kObjectCreated);
  ShortenChain(top.Get(), name, depth);
}

TEST(InotifyLimitsTest, WatchLimitMessageNamesTheLimitAndHowToRaiseIt) {
  const std::string known = WatchLimitMessage("/srv/data", 8192);
  EXPECT_NE(known.find("'/srv/data'"), std::string::npos);
  EXPECT_NE(known.find("/proc/sys/fs/inotify/max_user_watches = 8192"), std::string::npos);
  EXPECT_NE(known.find("sysctl fs.inotify.max_user_watches=524288"), std::string::npos);
  EXPECT_NE(WatchLimitMessage("/x", 1000000).find("max_user_watches=2000000"), std::string::npos);
  const std::string unknown = WatchLimitMessage("/x", std::nullopt);
  EXPECT_NE(unknown.find("max_user_watches unreadable"), std::string::npos);
  EXPECT_NE(unknown.find("sysctl fs.inotify.max_user_watches="), std::string::npos);
}

}  // namespace
}  // namespace arvo::host
