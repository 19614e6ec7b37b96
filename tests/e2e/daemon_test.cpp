// arvo-fim daemon as systemd runs it: the notify protocol on a socket of
// the test's own, reloads on SIGHUP, the events log reopened on SIGUSR1;
// and the operator commands status, accept and check-config.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "pax/enumerations.h"
#include "tests/e2e/e2e_util.h"

namespace arvo::e2e {
namespace {

namespace mod = pax::modification;

// A datagram socket standing in for systemd's notify socket.
class NotifySocket {
 public:
  explicit NotifySocket(std::string path) : m_path(std::move(path)) {
    m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
        << std::strerror(errno);
  }
  ~NotifySocket() { ::close(m_fd); }
  const std::string& Path() const { return m_path; }

  // Finds the next message, after the one the previous call found, that
  // starts with `prefix`, reading more as needed; false at the deadline.
  bool WaitFor(const std::string& prefix, Clock::time_point deadline = Process::Deadline()) {
    for (;;) {
      for (; m_next < m_seen.size(); ++m_next) {
        if (m_seen[m_next].rfind(prefix, 0) == 0) {
          ++m_next;
          return true;
        }
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{m_fd, POLLIN, 0};
      if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return false;
      char buffer[4096];
      const ssize_t n = ::recv(m_fd, buffer, sizeof buffer, 0);
      if (n > 0) m_seen.emplace_back(buffer, static_cast<std::size_t>(n));
    }
  }
  std::string Seen() const {
    std::string all;
    for (const auto& m : m_seen) all += m + "\n";
    return all;
  }

 private:
  std::string m_path;
  int m_fd = -1;
  std::vector<std::string> m_seen;
  std::size_t m_next = 0;  // m_seen[m_next...] not yet looked at
};

std::string Content(const std::string& file) {
  std::ostringstream s;
  s << std::ifstream(file).rdbuf();
  return s.str();
}

// Polls `condition` until it holds; false at the deadline.
bool Eventually(const std::function<bool()>& condition) {
  for (const auto deadline = Process::Deadline(); Clock::now() < deadline;) {
    if (condition()) return true;
    pollfd none{-1, 0, 0};
    ::poll(&none, 0, 20);
  }
  return condition();
}

class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* dir : {"a", "b"}) ASSERT_EQ(::mkdir((m_tree / dir).c_str(), 0755), 0);
  }

  // A configuration watching `areas` (names under the tree), with
  // `daemonTable` as its [daemon] table.
  std::string Config(const std::vector<std::string>& areas,
                     const std::string& daemonTable = "interval = 0\nscan_at_start = false\n") {
    // $NOTIFY_SOCKET makes the daemon look started by systemd, which turns
    // the journal on by default; the tests have no journal to take entries.
    std::string text = "[daemon]\njournal = false\n" + daemonTable;
    for (const auto& area : areas) text += "[[area]]\npath = \"" + (m_tree / area) + "\"\n";
    return text;
  }
  void WriteConfig(const std::string& text) { WriteFile(m_config, text, true); }

  std::map<std::string, std::string> Env() const {
    return {{"ARVO_FIM_DB", m_tree / "db/fim.db"},
            {"ARVO_FIM_STORAGE", m_tree / "st/storage"},
            {"NOTIFY_SOCKET", m_notify.Path()},
            {"WATCHDOG_USEC", "200000"}};
  }

  std::unique_ptr<Process> StartDaemon(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args{"daemon", "--format", "json", "--config", m_config};
    args.insert(args.end(), extra.begin(), extra.end());
    auto p = std::make_unique<Process>(args, Env());
    EXPECT_TRUE(m_notify.WaitFor("READY=1")) << p->Stderr() << m_notify.Seen();
    return p;
  }

  static bool AwaitCreated(Process& p, const std::string& path) {
    return p.ReadEventsUntil([&](const std::vector<Event>& events) {
      for (const Event& e : events)
        if (e.Path() == path && e.Number("FileModificationType") == mod::kObjectCreated)
          return true;
      return false;
    });
  }

  TempTree m_tree;
  std::string m_config = m_tree / "fim.toml";
  NotifySocket m_notify{m_tree / "notify"};
};

TEST_F(DaemonTest, TellsTheServiceManagerWhenReadyWhatItDoesAndThatItLives) {
  WriteConfig(Config({"a"}, "interval = 0\n"));  // scan_at_start defaults to true
  // inotify: the status counts its watches, whoever runs the test.
  auto daemon = StartDaemon({"--backend", "inotify"});
  ASSERT_TRUE(m_notify.WaitFor("STATUS=scanning area 1 of 1, ")) << m_notify.Seen();
  ASSERT_TRUE(m_notify.WaitFor("STATUS=watching 1 directories, no scheduled scans"))
      << m_notify.Seen();
  ASSERT_TRUE(m_notify.WaitFor("WATCHDOG=1")) << m_notify.Seen();
  ASSERT_TRUE(m_notify.WaitFor("WATCHDOG=1")) << m_notify.Seen();  // again, at its interval
  // The scan at start built the baseline.
  ASSERT_TRUE(daemon->ReadEventsUntil([](const std::vector<Event>& events) {
    return !OfType(events, "BaselineBuilt").empty();
  })) << daemon->Stderr();
  daemon->Signal(SIGTERM);
  EXPECT_TRUE(m_notify.WaitFor("STOPPING=1")) << m_notify.Seen();
  EXPECT_EQ(daemon->Finish(), 0) << daemon->Stderr();
}

TEST_F(DaemonTest, ReloadAppliesANewAreaSetAndARefusedOneKeepsTheRunningOne) {
  WriteConfig(Config({"a"}));
  auto daemon = StartDaemon();
  WriteConfig(Config({"a", "b"}));
  daemon->Signal(SIGHUP);
  ASSERT_TRUE(m_notify.WaitFor("RELOADING=1")) << m_notify.Seen();
  ASSERT_TRUE(m_notify.WaitFor("READY=1")) << m_notify.Seen();
  ASSERT_TRUE(daemon->WaitForStderr("configuration reloaded: 2 area(s)")) << daemon->Stderr();
  WriteFile(m_tree / "b/new", "");
  ASSERT_TRUE(AwaitCreated(*daemon, m_tree / "b/new")) << daemon->Stderr();

  WriteConfig(Config({"a", "b"}) + "[[area]]\npath = \"relative\"\n");
  daemon->Signal(SIGHUP);
  ASSERT_TRUE(
      daemon->WaitForStderr("reload failed, the running configuration stays: " + m_config + ":"))
      << daemon->Stderr();
  ASSERT_TRUE(m_notify.WaitFor("READY=1")) << m_notify.Seen();
  // Valid, but the on-access task refuses it (a root that does not exist):
  // the task is handed its running settings back.
  WriteConfig(Config({"a", "b", "missing"}));
  daemon->Signal(SIGHUP);
  ASSERT_TRUE(daemon->WaitForStderr(
      "reload failed, the running configuration stays: the on-access monitor refused"))
      << daemon->Stderr();
  ASSERT_TRUE(m_notify.WaitFor("READY=1")) << m_notify.Seen();
  WriteFile(m_tree / "a/still", "");
  WriteFile(m_tree / "b/still", "");
  EXPECT_TRUE(AwaitCreated(*daemon, m_tree / "a/still")) << daemon->Stderr();
  EXPECT_TRUE(AwaitCreated(*daemon, m_tree / "b/still")) << daemon->Stderr();
  daemon->Signal(SIGINT);
  EXPECT_EQ(daemon->Finish(), 0) << daemon->Stderr();
}

TEST_F(DaemonTest, SigusrOneStartsANewEventsLogAfterRotation) {
  const std::string log = m_tree / "log/events.jsonl";
  WriteConfig(Config({"a"}, "interval = 0\nscan_at_start = false\nevents_log = \"" + log + "\"\n"));
  auto daemon = StartDaemon();
  struct stat st {};
  ASSERT_EQ(::stat(log.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  WriteFile(m_tree / "a/first", "");
  ASSERT_TRUE(AwaitCreated(*daemon, m_tree / "a/first"));
  ASSERT_TRUE(Eventually([&] { return Content(log).find("/a/first") != std::string::npos; }));

  ASSERT_EQ(std::rename(log.c_str(), (log + ".1").c_str()), 0);
  daemon->Signal(SIGUSR1);
  // Said once the new file takes the events (it exists a little earlier).
  ASSERT_TRUE(daemon->WaitForStderr("arvo-fim: events log reopened")) << daemon->Stderr();
  ASSERT_EQ(::access(log.c_str(), F_OK), 0);
  WriteFile(m_tree / "a/second", "");
  ASSERT_TRUE(AwaitCreated(*daemon, m_tree / "a/second"));
  ASSERT_TRUE(Eventually([&] { return Content(log).find("/a/second") != std::string::npos; }));
  EXPECT_EQ(Content(log).find("/a/first"), std::string::npos);
  EXPECT_EQ(Content(log + ".1").find("/a/second"), std::string::npos);
  daemon->Signal(SIGTERM);
  EXPECT_EQ(daemon->Finish(), 0) << daemon->Stderr();
}

// The text a command prints on stdout (not events) and its exit code.
struct TextResult {
  int exitCode = -1;
  std::string out, err;
};

TextResult RunText(const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env) {
  Process p(args, env);
  TextResult r;
  while (auto line = p.ReadLine(Stream::kOut)) r.out += *line + "\n";
  r.exitCode = p.Finish();
  r.err = p.Stderr();
  return r;
}

TEST_F(DaemonTest, OperatorCommandsCheckShowAndAccept) {
  WriteConfig(Config({"a"}));
  TextResult checked = RunText({"check-config", "--config", m_config}, Env());
  EXPECT_EQ(checked.exitCode, 0) << checked.err;
  EXPECT_EQ(checked.out, m_config + ": valid, 1 area(s), 1 watched\n");
  WriteFile(m_tree / "bad.toml", "[daemon]\ninterval = \"1h\"\n");
  checked = RunText({"check-config", "--config", m_tree / "bad.toml"}, Env());
  EXPECT_EQ(checked.exitCode, 2);
  EXPECT_EQ(checked.err.rfind("arvo-fim: " + (m_tree / "bad.toml") + ":2:12: daemon.interval:", 0),
            0u)
      << checked.err;

  WriteFile(m_tree / "a/file", "one");
  ASSERT_EQ(RunFim({"scan", "--config", m_config}, Env()).exitCode, 0);
  auto status = [&] {
    const TextResult r = RunText({"status", "--config", m_config}, Env());
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return r.out;
  };
  std::string shown = status();
  EXPECT_NE(shown.find("daemon:     not running"), std::string::npos) << shown;
  EXPECT_NE(shown.find("(scan), completed, 0 integrity issue(s)"), std::string::npos) << shown;
  EXPECT_NE(shown.find(m_tree / "a" + "  "), std::string::npos) << shown;
  EXPECT_NE(shown.find(" baseline rows"), std::string::npos) << shown;
  EXPECT_EQ(shown.find("no baseline"), std::string::npos) << shown;

  {
    // inotify, whose watches are counted, whoever runs the test.
    auto daemon = StartDaemon({"--backend", "inotify"});
    // The daemon publishes its backend and watch count right after READY=1.
    EXPECT_TRUE(Eventually([&] {
      shown = status();
      return shown.find("watches:    1 in use") != std::string::npos;
    })) << shown;
    EXPECT_NE(shown.find("backend:    inotify\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("daemon:     running (pid "), std::string::npos) << shown;
    daemon->Signal(SIGTERM);
    EXPECT_EQ(daemon->Finish(), 0) << daemon->Stderr();
  }

  WriteFile(m_tree / "a/file", "two, longer", true);
  const RunResult accepted = RunFim({"accept", "--config", m_config}, Env());
  EXPECT_EQ(accepted.exitCode, 0) << accepted.stderrText;
  EXPECT_NE(accepted.stderrText.find("accepted"), std::string::npos) << accepted.stderrText;
  bool reported = false;
  for (const Event& e : OfType(accepted.events, "SystemIntegrityIssue"))
    reported = reported || e.Path() == m_tree / "a/file";
  EXPECT_TRUE(reported);
  const RunResult after = RunFim({"scan", "--config", m_config}, Env());
  EXPECT_EQ(after.exitCode, 0) << after.stderrText;
  EXPECT_TRUE(OfType(after.events, "SystemIntegrityIssue").empty());
}

}  // namespace
}  // namespace arvo::e2e
