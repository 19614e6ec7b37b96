#include "host/util/process_origin.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/util/scoped_fd.h"

namespace arvo::host {
namespace {

TEST(ProcessOriginTest, ALiveProcessIsReadWhole) {
  const ProcessOrigin self = ReadProcessOrigin(::getpid(), -1);
  EXPECT_FALSE(self.exited);
  EXPECT_EQ(self.parentPid, ::getppid());
  EXPECT_EQ(self.uid, ::getuid());
  EXPECT_FALSE(self.executable.empty());
  EXPECT_FALSE(self.command.empty());
}

TEST(ProcessOriginTest, AReapedProcessIsReportedAsExitedNeverAsAnother) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_GT(child, 0);
  const ScopedFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  if (!pidfd.Valid()) {
    ::waitpid(child, nullptr, 0);
    GTEST_SKIP() << "no pidfd_open here (kernel before 5.3, or an emulator without it)";
  }
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  // Whatever process holds that pid now, the pidfd says ours is gone.
  const ProcessOrigin gone = ReadProcessOrigin(child, pidfd.Get());
  EXPECT_TRUE(gone.exited);
  EXPECT_EQ(gone.pid, child);
  EXPECT_TRUE(gone.executable.empty());
  EXPECT_FALSE(gone.uid.has_value());
}

TEST(ProcessOriginTest, ALiveProcessThatProcHidesIsHiddenNotExited) {
  // A /proc without this process's directory, as a hidepid mount shows it.
  char root[] = "/tmp/arvo-proc-XXXXXX";
  ASSERT_NE(::mkdtemp(root), nullptr);
  const ScopedFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
  for (const int fd : {pidfd.Get(), -1}) {
    const ProcessOrigin seen = ReadProcessOrigin(::getpid(), fd, root);
    EXPECT_TRUE(seen.hidden) << "pidfd " << fd;
    EXPECT_FALSE(seen.exited);
    EXPECT_TRUE(seen.command.empty());
    EXPECT_FALSE(seen.uid.has_value());
  }
  ::rmdir(root);
}

TEST(ProcessOriginTest, TheOriginIsCurrentOnlyInsideItsScope) {
  EXPECT_EQ(CurrentProcessOrigin(), nullptr);
  ProcessOrigin outer, inner;
  {
    const ScopedProcessOrigin a(&outer);
    {
      const ScopedProcessOrigin b(&inner);
      EXPECT_EQ(CurrentProcessOrigin(), &inner);
    }
    EXPECT_EQ(CurrentProcessOrigin(), &outer);
  }
  EXPECT_EQ(CurrentProcessOrigin(), nullptr);
}

}  // namespace
}  // namespace arvo::host
