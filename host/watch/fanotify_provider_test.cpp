#include "host/watch/fanotify_provider.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <vector>

#include "host/util/process_origin.h"
#include "host/util/test_temp_dir.h"
#include "orn/simple_object.h"
#include "pax/enumerations.h"

namespace arvo::host {
namespace {

namespace mod = pax::modification;
constexpr std::uint32_t kAll =
    IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;
constexpr auto kPatience = std::chrono::seconds(20);

struct Seen {
  pax::InotifyEvent event;
  std::optional<ProcessOrigin> origin;  // as current during OnEvent
};

// Keeps every change event with the origin the provider made current. The
// file system mark sees the whole machine's changes, so lost-record errors
// from a busy machine are not failures here.
class Recorder final : public orn::SimpleObject<pax::IInotifyEventsReceiver> {
 public:
  orn::result_t OnEvent(const pax::InotifyEvent& event) override {
    Seen seen{event, std::nullopt};
    if (const ProcessOrigin* origin = CurrentProcessOrigin()) seen.origin = *origin;
    {
      std::lock_guard lock(m_mutex);
      m_seen.push_back(std::move(seen));
    }
    m_changed.notify_all();
    return orn::errors::kOk;
  }
  orn::result_t GetName(orn::types::string8_t& name) const override {
    name = "recorder";
    return orn::errors::kOk;
  }
  bool WaitForError(const std::string& needle) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] {
      for (const Seen& s : m_seen) {
        if (s.event.error.find(needle) != std::string::npos) return true;
      }
      return false;
    });
  }
  bool Has(const std::string& path) {
    std::lock_guard lock(m_mutex);
    for (const Seen& s : m_seen) {
      if (s.event.path == path) return true;
    }
    return false;
  }
  std::optional<Seen> WaitFor(std::uint32_t code, const std::string& path) {
    std::unique_lock lock(m_mutex);
    std::optional<Seen> found;
    m_changed.wait_for(lock, kPatience, [&] {
      for (const Seen& s : m_seen) {
        if (s.event.mask == code && s.event.path == path) return found = s, true;
      }
      return false;
    });
    return found;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Seen> m_seen;
};

class FanotifyProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (ORN_FAILED(CreateFanotifyProvider(nullptr, m_provider, why)))
      GTEST_SKIP() << "fanotify is not available here: " << why;
  }
  void TearDown() override {
    if (m_provider) (void)m_provider->Unsubscribe(m_recorder.Get());
  }
  // Runs `script` in a child shell that stays alive until `release` is
  // closed, so its executable can still be read. Returns its pid.
  pid_t Spawn(const std::string& script, int& release) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::dup2(fds[0], 0);
      ::execl("/bin/sh", "sh", "-c", (script + "; read _").c_str(), nullptr);
      ::_exit(127);
    }
    ::close(fds[0]);
    release = fds[1];
    return pid;
  }

  arvo::test::TempDir m_dir;
  orn::RefPtr<pax::IInotifyEventsProvider> m_provider;
  orn::RefPtr<Recorder> m_recorder = orn::MakeSimple<Recorder>();
};

TEST_F(FanotifyProviderTest, NamesTheProcessThatMadeTheChange) {
  ASSERT_EQ(m_provider->Subscribe(m_recorder.Get(), m_dir.Path(), kAll), orn::errors::kOk);
  int release = -1;
  const pid_t child = Spawn("echo x >> '" + (m_dir / "f") + "'", release);
  ASSERT_GT(child, 0);
  const std::optional<Seen> seen = m_recorder->WaitFor(mod::kObjectContentChanged, m_dir / "f");
  ::close(release);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(seen) << "no change event for the child's write";
  ASSERT_TRUE(seen->origin);
  EXPECT_EQ(seen->origin->pid, child);
  EXPECT_FALSE(seen->origin->exited);
  EXPECT_EQ(seen->origin->parentPid, ::getpid());
  EXPECT_EQ(std::filesystem::path(seen->origin->executable).filename(),
            std::filesystem::path(std::filesystem::canonical("/bin/sh")).filename());
}

TEST_F(FanotifyProviderTest, ANewDirectoryIsCoveredAtOnceAndRenamesArriveWhole) {
  ASSERT_EQ(m_provider->Subscribe(m_recorder.Get(), m_dir.Path(), kAll), orn::errors::kOk);
  int release = -1;
  const pid_t child =
      Spawn("mkdir -p '" + (m_dir / "a/b/c") + "' && echo x > '" + (m_dir / "a/b/c/f") +
                "' && mv '" + (m_dir / "a/b/c/f") + "' '" + (m_dir / "a/g") + "'",
            release);
  EXPECT_TRUE(m_recorder->WaitFor(mod::kObjectCreated, m_dir / "a/b/c/f"));
  const std::optional<Seen> moved = m_recorder->WaitFor(mod::kObjectMoved, m_dir / "a/g");
  ::close(release);
  ::waitpid(child, nullptr, 0);
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved->event.formerPath, m_dir / "a/b/c/f");
}

TEST_F(FanotifyProviderTest, ItsOwnChangesAreNotReported) {
  ASSERT_EQ(m_provider->Subscribe(m_recorder.Get(), m_dir.Path(), kAll), orn::errors::kOk);
  std::ofstream(m_dir / "own") << "mine";
  int release = -1;
  const pid_t child = Spawn("echo x > '" + (m_dir / "theirs") + "'", release);
  EXPECT_TRUE(m_recorder->WaitFor(mod::kObjectCreated, m_dir / "theirs"));
  ::close(release);
  ::waitpid(child, nullptr, 0);
  // Records are delivered in order: "own" came first, so it would be here.
  EXPECT_FALSE(m_recorder->Has(m_dir / "own"));
}

// Kernel objects this process holds, as /proc/self/fdinfo lists them.
int CountFdinfoLines(const char* prefix) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream in(entry.path());
    std::string line;
    while (std::getline(in, line)) count += line.rfind(prefix, 0) == 0;
  }
  return count;
}

TEST_F(FanotifyProviderTest, ALargeTreeNeedsOneMarkAndNoWatches) {
  // 20,000 directories: 100 of 199 each, plus a chain 100 deep.
  std::string deepest = m_dir.Path();
  for (int i = 0; i < 100; ++i) {
    const std::string top = m_dir / ("d" + std::to_string(i));
    ASSERT_EQ(::mkdir(top.c_str(), 0755), 0);
    for (int j = 0; j < 199; ++j) (void)::mkdir((top + "/" + std::to_string(j)).c_str(), 0755);
    deepest += "/c";
    ASSERT_EQ(::mkdir(deepest.c_str(), 0755), 0);
  }
  const int inotifyBefore = CountFdinfoLines("inotify wd:");
  ASSERT_EQ(m_provider->Subscribe(m_recorder.Get(), m_dir.Path(), kAll), orn::errors::kOk);
  EXPECT_EQ(CountFdinfoLines("inotify wd:"), inotifyBefore);
  EXPECT_EQ(CountFdinfoLines("fanotify sdev:"), 1) << "one mark for the one file system";
  int release = -1;
  const pid_t child = Spawn("echo x > '" + deepest + "/f'", release);  // not our own change
  EXPECT_TRUE(m_recorder->WaitFor(mod::kObjectCreated, deepest + "/f"));
  ::close(release);
  ::waitpid(child, nullptr, 0);
}

// In a mount namespace of its own (a child process, so the test binary's
// namespace stays as it was): a watched file system is unmounted while
// watched. The watch must not keep it busy, and its subscription is told.
TEST_F(FanotifyProviderTest, UnmountingAWatchedFileSystemIsToldAndNotPrevented) {
  const pid_t child = ::fork();
  if (child == 0) {
    const std::string mnt = m_dir / "mnt";
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      ::_exit(77);
    if (::mkdir(mnt.c_str(), 0755) != 0 || ::mount("tmpfs", mnt.c_str(), "tmpfs", 0, nullptr) != 0)
      ::_exit(77);
    orn::RefPtr<pax::IInotifyEventsProvider> provider;
    std::string why;
    auto recorder = orn::MakeSimple<Recorder>();
    if (ORN_FAILED(CreateFanotifyProvider(nullptr, provider, why)) ||
        ORN_FAILED(provider->Subscribe(recorder.Get(), mnt, kAll)))
      ::_exit(77);  // e.g. a kernel whose tmpfs has no file handles
    if (::umount2(mnt.c_str(), 0) != 0) ::_exit(1);
    const bool told = recorder->WaitForError("unmounted");
    (void)provider->Unsubscribe(recorder.Get());
    ::_exit(told ? 0 : 2);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private mount namespace or tmpfs mark here";
  EXPECT_NE(WEXITSTATUS(status), 1) << "the watch kept the file system busy";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "no coverage-lost event for the unmount";
}

}  // namespace
}  // namespace arvo::host
