// arvo-fim scan on a live system: objects that vanish while the walk passes,
// unreadable files, parts not scanned, concurrent runs, signals, standard
// output that is closed or whose reader went away, forged trace lines.
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <thread>

#include "tests/e2e/e2e_util.h"

namespace arvo::e2e {
namespace {

// Waits for `done` with a deadline, yielding between looks.
bool WaitUntil(const std::function<bool()>& done) {
  const auto deadline = Process::Deadline();
  while (!done()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// True while `sig` is pending for the whole process (not yet read from its
// signalfd).
bool SignalPending(pid_t pid, int sig) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("ShdPnd:", 0) == 0)
      return (std::stoull(line.substr(7), nullptr, 16) >> (sig - 1)) & 1;
  return false;
}

class ScanRobustnessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_area = m_tree / "area";
    ASSERT_EQ(::mkdir(m_area.c_str(), 0755), 0);
    WriteFile(m_area + "/f", "one");
  }

  // `dirs` directories of `files` files each.
  void Populate(int dirs, int files) {
    for (int d = 0; d < dirs; ++d) {
      const std::string dir = m_area + "/bulk" + std::to_string(d);
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
      for (int f = 0; f < files; ++f) WriteFile(dir + "/" + std::to_string(f), "z");
    }
  }

  std::map<std::string, std::string> Env() const {
    return {{"ARVO_FIM_DB", m_tree / "private/db/fim.db"},
            {"ARVO_FIM_STORAGE", m_tree / "private/storage/fim_storage.dat"}};
  }

  // Runs `argv` with standard output on `stdoutFd` (-1: closed) and
  // standard error in a file; returns the exit code or 128 + signal.
  int Spawn(const std::vector<std::string>& argv, int stdoutFd, std::string& err) {
    const std::string errFile = m_tree / "stderr.txt";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdoutFd < 0) {
      posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO);
    } else {
      posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<std::string> args = argv;
    std::vector<char*> cargv;
    for (auto& a : args) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    for (const auto& [k, v] : Env()) env.push_back(k + "=" + v);
    std::vector<char*> cenv;
    for (auto& e : env) cenv.push_back(e.data());
    cenv.push_back(nullptr);
    pid_t pid = -1;
    const int rc = ::posix_spawnp(&pid, cargv[0], &actions, nullptr, cargv.data(), cenv.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    ::waitpid(pid, &status, 0);
    err = ReadText(errFile);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  TempTree m_tree;
  std::string m_area;
};

// Files created and deleted without pause in one directory while the walk
// passes: the run that meets a vanished file is retried, saying so, and the
// first baseline is complete afterwards (the next run is not a first run).
TEST_F(ScanRobustnessTest, AWalkThatMeetsAVanishedFileIsRetriedAndKeepsTheBaseline) {
  Populate(20, 100);
  const std::string spool = m_area + "/spool";
  ASSERT_EQ(::mkdir(spool.c_str(), 0755), 0);
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    // Each file lives for 200 creations: a listing is stale long before the
    // walk has recorded all of its names.
    for (unsigned i = 0; !stop.load(); ++i) {
      WriteFile(spool + "/" + std::to_string(i), "spool");
      if (i >= 200) ::unlink((spool + "/" + std::to_string(i - 200)).c_str());
    }
  });
  Process scan({"scan", "--format", "json", m_area}, Env());
  const bool retried = scan.WaitForStderr("retrying the scan (1 of 3)");
  stop = true;
  churn.join();
  EXPECT_EQ(scan.Finish(), 0) << scan.Stderr();
  EXPECT_EQ(OfType(scan.Events(), "BaselineBuilt").size(), 1u) << scan.Stderr();
  if (retried) {
    EXPECT_NE(scan.Stderr().find("vanished or was replaced"), std::string::npos);
  }

  const RunResult next = RunFim({"scan", "--format", "json", m_area}, Env());
  EXPECT_LE(next.exitCode, 1) << next.stderrText;
  EXPECT_TRUE(OfType(next.events, "BaselineBuilt").empty());
}

// A file this user cannot read fails a hashing run; the run says so at
// start and names the file and the fixes at the end. Without hashing the
// same run succeeds.
TEST_F(ScanRobustnessTest, AnUnreadableFileIsNamedWithItsFixes) {
  const std::string secret = m_area + "/secret";
  WriteFile(secret, "s");
  ASSERT_EQ(::chmod(secret.c_str(), 0), 0);
  std::vector<std::string> argv = {ARVO_FIM_BIN};
  if (::geteuid() == 0) {
    // Run as nobody: the tree must be reachable and the private files its own.
    ASSERT_EQ(::chmod(m_tree.Path().c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((m_tree / "private").c_str(), 0700), 0);
    ASSERT_EQ(::chown((m_tree / "private").c_str(), 65534, 65534), 0);
    argv = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", ARVO_FIM_BIN};
  }
  std::vector<std::string> hashing = argv;
  for (const char* a : {"scan", "--format", "json", "--hash"}) hashing.push_back(a);
  hashing.push_back(m_area);
  std::string err;
  EXPECT_EQ(Spawn(hashing, ::open("/dev/null", O_WRONLY | O_CLOEXEC), err), 2) << err;
  EXPECT_NE(err.find("not running as root: a file this user cannot read fails the run"),
            std::string::npos)
      << err;
  EXPECT_NE(err.find("arvo-fim: scan failed: cannot read '" + secret +
                     "': Access denied; run as root, scan with --no-hash or exclude it"),
            std::string::npos)
      << err;

  std::vector<std::string> plain = argv;
  for (const char* a : {"scan", "--format", "json", "--no-hash"}) plain.push_back(a);
  plain.push_back(m_area);
  EXPECT_EQ(Spawn(plain, ::open("/dev/null", O_WRONLY | O_CLOEXEC), err), 0) << err;
}

// Areas that were not scanned are named at the default trace level and
// counted in the closing line; the exit code stays that of the scanned part.
TEST_F(ScanRobustnessTest, PartsNotScannedAreNamedAndCounted) {
  const RunResult run =
      RunFim({"scan", "--format", "json", m_area, m_tree / "missing", "/proc/sys/kernel"}, Env());
  EXPECT_EQ(run.exitCode, 0) << run.stderrText;
  EXPECT_NE(run.stderrText.find("not scanned: '" + m_tree / "missing" + "': does not exist"),
            std::string::npos)
      << run.stderrText;
  EXPECT_NE(run.stderrText.find("scan completed, 0 integrity issue(s), 2 areas or directories "
                                "not scanned: '" +
                                m_tree / "missing" +
                                "' (does not exist), '/proc/sys/kernel' (pseudo file system)"),
            std::string::npos)
      << run.stderrText;
}

// One run at a time per database: a second run waits for the holder, saying
// whom it waits for, or with --no-wait fails at once naming it.
TEST_F(ScanRobustnessTest, ASecondRunWaitsForTheHolderOrFailsAtOnceWithNoWait) {
  ASSERT_EQ(RunFim({"scan", "--format", "json", m_area}, Env()).exitCode, 0);
  const int fd =
      ::open((m_tree / "private/db/fim.db.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  flock lock{};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &lock), 0);
  const std::string pid = std::to_string(::getpid());
  ASSERT_EQ(::pwrite(fd, (pid + "\n").data(), pid.size() + 1, 0),
            static_cast<ssize_t>(pid.size() + 1));

  const RunResult refused = RunFim({"scan", "--no-wait", "--format", "json", m_area}, Env());
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_NE(refused.stderrText.find("the database is in use by the run of pid " + pid),
            std::string::npos)
      << refused.stderrText;

  Process waiting({"scan", "--format", "json", m_area}, Env());
  EXPECT_TRUE(waiting.WaitForStderr("waiting for the run of pid " + pid + " to finish"));
  ::close(fd);  // the holder's run ends
  EXPECT_EQ(waiting.Finish(), 0) << waiting.Stderr();
  EXPECT_EQ(OfType(waiting.Events(), "SystemIntegrityOk").size(), 1u);
}

struct SignalCase {
  int signal;
  int exitCode;
};

class ScanSignalTest : public ScanRobustnessTest,
                       public ::testing::WithParamInterface<SignalCase> {};

// SIGHUP and SIGQUIT stop a running scan like SIGTERM; SIGUSR1 reopens the
// output file (after log rotation moved it away) and the scan runs on.
TEST_P(ScanSignalTest, SignalsDuringTheWalk) {
  Populate(15, 100);
  const std::string out = m_tree / "events.jsonl";
  // The walk traces every file at level 800; once the area's "Path: " line is
  // read the test stops reading, so the walk stalls in the middle of the area.
  Process scan({"--trace-level", "800", "scan", "--format", "json", "--output", out, m_area},
               Env());
  ASSERT_TRUE(scan.WaitForStderr("odfim\tPath: " + m_area)) << scan.Stderr();
  ASSERT_EQ(::rename(out.c_str(), (out + ".1").c_str()), 0);
  scan.Signal(GetParam().signal);
  if (GetParam().signal == SIGUSR1) {
    ASSERT_TRUE(WaitUntil([&] { return ::access(out.c_str(), F_OK) == 0; }));
  }
  EXPECT_EQ(scan.Finish(), GetParam().exitCode);
  const bool completed = GetParam().exitCode == 0;
  EXPECT_EQ(ReadText(out).find("BaselineBuilt") != std::string::npos, completed);
  EXPECT_EQ(scan.Stderr().find("arvo-fim: scan interrupted") != std::string::npos, !completed);
}

INSTANTIATE_TEST_SUITE_P(Signals, ScanSignalTest,
                         ::testing::Values(SignalCase{SIGHUP, 3}, SignalCase{SIGQUIT, 3},
                                           SignalCase{SIGUSR1, 0}));

// watch: SIGUSR1 reopens the output and watching goes on; SIGHUP stops it
// cleanly.
TEST_F(ScanRobustnessTest, WatchReopensOnUsr1AndStopsCleanlyOnHup) {
  const std::string out = m_tree / "events.jsonl";
  Process watch({"watch", "--format", "json", "--output", out, m_area}, Env());
  ASSERT_TRUE(watch.WaitForStderr("watching 1 area(s)")) << watch.Stderr();
  ASSERT_EQ(::rename(out.c_str(), (out + ".1").c_str()), 0);
  watch.Signal(SIGUSR1);
  ASSERT_TRUE(WaitUntil([&] { return ::access(out.c_str(), F_OK) == 0; }));
  WriteFile(m_area + "/new", "n");
  ASSERT_TRUE(WaitUntil([&] { return ReadText(out).find("/new") != std::string::npos; }));
  watch.Signal(SIGHUP);
  EXPECT_EQ(watch.Finish(), 0) << watch.Stderr();
}

// A second Ctrl-C while the scan stops must not turn exit code 3 into a
// death by signal.
TEST_F(ScanRobustnessTest, ASecondInterruptWhileStoppingStillExitsThree) {
  Populate(15, 100);
  Process scan({"--trace-level", "800", "scan", "--format", "json", m_area}, Env());
  ASSERT_TRUE(scan.WaitForStderr("odfim\tPath: " + m_area)) << scan.Stderr();
  scan.Signal(SIGINT);
  // Read by the scan (it is stopping, stalled on its full trace pipe), so
  // the second one stays pending until the scan ends.
  ASSERT_TRUE(WaitUntil([&] { return !SignalPending(scan.Pid(), SIGINT); }));
  scan.Signal(SIGINT);
  EXPECT_EQ(scan.Finish(), 3) << scan.Stderr().substr(0, 2000);
}

// Standard output closed, or a reader that went away: the scan says that its
// events could not be written.
TEST_F(ScanRobustnessTest, EventsThatCannotBeWrittenAreReportedAsSuch) {
  std::string err;
  EXPECT_EQ(Spawn({ARVO_FIM_BIN, "scan", "--format", "json", m_area}, -1, err), 2);
  EXPECT_NE(err.find("standard output is closed: events could not be written"), std::string::npos)
      << err;

  int p[2];
  ASSERT_EQ(::pipe2(p, O_CLOEXEC), 0);
  ::close(p[0]);
  EXPECT_EQ(Spawn({ARVO_FIM_BIN, "scan", "--format", "json", m_area}, p[1], err), 2);
  ::close(p[1]);
  EXPECT_NE(err.find("events could not be written to standard output: Broken pipe"),
            std::string::npos)
      << err;
}

// A file whose name carries a newline cannot write a trace line of its own
// (an excluded object's path is traced at level 800).
TEST_F(ScanRobustnessTest, PathBytesCannotForgeTraceLines) {
  WriteFile(m_area + "/x\n2025-01-01T00:00:00.000000Z 300 1 forged", "x");
  const std::string trace = m_tree / "trace.log";
  const RunResult run = RunFim({"--trace-level", "800", "--trace-file", trace, "scan", "--exclude",
                                "x*", "--format", "json", m_area},
                               Env());
  ASSERT_EQ(run.exitCode, 0) << run.stderrText;
  const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+ \d+ .*)");
  std::ifstream in(trace);
  int lines = 0;
  for (std::string l; std::getline(in, l); ++lines) ASSERT_TRUE(std::regex_match(l, line)) << l;
  EXPECT_GT(lines, 0);
  EXPECT_NE(ReadText(trace).find("x\\x0a2025-01-01"), std::string::npos);
}

}  // namespace
}  // namespace arvo::e2e
