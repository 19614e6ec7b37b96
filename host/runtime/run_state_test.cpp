#include "host/runtime/run_state.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/runtime/pid_file.h"
#include "host/util/test_temp_dir.h"

namespace arvo::host {
namespace {

TEST(RunStateTest, RoundTripsAndToleratesJunk) {
  const RunState state{1764000000, "daemon", "failed", 3, "disk\nfull", 812, "inotify"};
  RunState expected = state;
  expected.reason = "disk full";  // one line per value
  EXPECT_EQ(ParseRunState(FormatRunState(state)), expected);
  const RunState parsed = ParseRunState("garbage\nissues=x\nwatches=5\nnew_key=1\n");
  EXPECT_EQ(parsed.issues, 0u);
  EXPECT_EQ(parsed.watches, 5);
}

TEST(RunStateTest, FilesLiveBesideTheDatabaseAndKeepEachOthersFields) {
  arvo::test::TempDir dir;
  ::setenv("ARVO_FIM_DB", (dir / "fim.db").c_str(), 1);
  EXPECT_EQ(RunStateFile(), dir / "arvo-fim.state");
  EXPECT_EQ(DaemonPidFile(), dir / "arvo-fim.daemon.pid");
  RecordWatches(7, "fanotify (file-system marks)");
  RunOutcome outcome;
  outcome.kind = RunOutcome::Kind::kCompleted;
  outcome.issues = 2;
  RecordRun("scan", outcome);
  RunState state;
  ASSERT_TRUE(ReadRunState(RunStateFile(), state));
  EXPECT_EQ(state.watches, 7);
  EXPECT_EQ(state.backend, "fanotify (file-system marks)");
  EXPECT_EQ(state.command, "scan");
  EXPECT_EQ(state.result, "completed");
  EXPECT_EQ(state.issues, 2u);
  EXPECT_GT(state.finishedAt, 0);
  ::unsetenv("ARVO_FIM_DB");
}

TEST(PidFileTest, TheHolderIsSeenAndASecondDaemonIsRefused) {
  arvo::test::TempDir dir;
  const std::string file = dir / "d.pid";
  EXPECT_FALSE(LockedPid(file));  // no file
  {
    PidFileLock lock;
    std::string error;
    ASSERT_TRUE(lock.Acquire(file, error)) << error;
    // flock locks belong to the open file description: a child process
    // opening the file is another holder, as a second daemon would be.
    const pid_t child = ::fork();
    if (child == 0) {
      PidFileLock other;
      std::string why;
      const bool refused =
          !other.Acquire(file, why) &&
          why.find("already running (pid " + std::to_string(::getppid())) != std::string::npos;
      const auto seen = LockedPid(file);
      ::_exit(refused && seen == ::getppid() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_FALSE(LockedPid(file));  // released with its owner; the stale pid is not trusted
}

}  // namespace
}  // namespace arvo::host
