#include "host/util/run_lock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "host/util/test_temp_dir.h"

namespace arvo::host {
namespace {

class RunLockTest : public ::testing::Test {
 protected:
  arvo::test::TempDir m_dir;
  std::string m_path = RunLockPathFor(m_dir / "fim.db");
};

// Two holders in one process conflict (the lock belongs to the open file
// description), the loser learns the holder's pid, a release lets it in.
TEST_F(RunLockTest, SecondTakerIsBusyAndLearnsTheHolderUntilRelease) {
  EXPECT_EQ(m_path, m_dir / "fim.db.lock");
  RunLock first(m_path), second(m_path);
  EXPECT_EQ(RunLock::QueryHolder(m_path), 0);  // no file yet
  ASSERT_EQ(first.TryTake(), RunLock::State::kTaken);
  EXPECT_TRUE(first.Held());
  EXPECT_EQ(first.TryTake(), RunLock::State::kTaken);  // taking again is a no-op

  EXPECT_EQ(second.TryTake(), RunLock::State::kBusy);
  EXPECT_EQ(second.Holder(), ::getpid());
  EXPECT_FALSE(second.Held());
  EXPECT_EQ(RunLock::QueryHolder(m_path), ::getpid());  // a reader never takes it
  EXPECT_EQ(second.TryTake(), RunLock::State::kBusy);

  first.Release();
  EXPECT_EQ(RunLock::QueryHolder(m_path), 0);
  EXPECT_EQ(second.TryTake(), RunLock::State::kTaken);
}

// A holder that died leaves its pid in the file but no lock.
TEST_F(RunLockTest, AStalePidWithoutALockIsNoHolder) {
  std::ofstream(m_path) << "999999\n";
  EXPECT_EQ(RunLock::QueryHolder(m_path), 0);
  RunLock lock(m_path);
  ASSERT_EQ(lock.TryTake(), RunLock::State::kTaken);
  std::ifstream in(m_path);
  long pid = 0;
  in >> pid;
  EXPECT_EQ(pid, ::getpid());
}

TEST_F(RunLockTest, AnUnusableDirectoryIsAnErrorNamingTheFile) {
  RunLock lock(m_dir / "missing/fim.db.lock");
  EXPECT_EQ(lock.TryTake(), RunLock::State::kError);
  EXPECT_NE(lock.Error().find("missing/fim.db.lock"), std::string::npos) << lock.Error();
}

}  // namespace
}  // namespace arvo::host
