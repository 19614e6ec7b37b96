// Running the real arvo-fim from tests: a child process with piped stdout
// and stderr, a poll-based line reader with deadlines, JSON event lines.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/json_value.h"

extern char** environ;

namespace arvo::e2e {

using Clock = std::chrono::steady_clock;
// Generous: the tests wait on conditions, so a slow machine only makes them
// slower, never flaky.
inline constexpr std::chrono::seconds kDeadline{30};

// A temporary directory removed with its contents.
// "--backend NAME" when the run asks for a watch backend (ctest runs the
// watch tests once per backend through ARVO_E2E_WATCH_BACKEND), else nothing:
// arvo-fim then chooses.
inline std::vector<std::string> WatchBackendArgs() {
  const char* backend = std::getenv("ARVO_E2E_WATCH_BACKEND");
  if (!backend || !*backend) return {};
  return {"--backend", backend};
}

class TempTree {
 public:
  TempTree() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "arvo-e2e-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
    m_path = tmpl;
  }
  ~TempTree() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;
  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Writes `content` with one open and one write(2) (no truncation of an
// existing file unless `truncate`), so that each call is one change.
inline void WriteFile(const std::string& path, const std::string& content, bool truncate = false) {
  const int fd =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (truncate ? O_TRUNC : 0), 0644);
  ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
  if (!content.empty()) {
    ASSERT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  }
  ::close(fd);
}

// One product event line of the JSON output.
struct Event {
  arvo::test::JsonValue json;
  std::string typeName;
  // Value of the first field called `name`, or null.
  const arvo::test::JsonValue* Field(const std::string& name) const {
    for (const auto& f : json["fields"].items)
      if (f["name"].Bytes() == name) return &f["value"];
    return nullptr;
  }
  std::string Path() const { return Text("Path"); }
  std::string Text(const std::string& name) const {
    const auto* v = Field(name);
    return v ? v->Bytes() : std::string();
  }
  std::int64_t Number(const std::string& name) const {
    const auto* v = Field(name);
    return v ? v->Int() : -1;
  }
};

inline bool ParseEvent(const std::string& line, Event& out) {
  if (!arvo::test::ParseJson(line, out.json)) return false;
  out.typeName = out.json["eventTypeName"].Bytes();
  return true;
}

enum class Stream { kOut, kErr };

// arvo-fim as a child process. The destructor kills a child still running.
class Process {
 public:
  // `launcher` (may be empty) is a command that runs arvo-fim: it is given
  // the binary and `args` after its own arguments.
  explicit Process(const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env = {},
                   const std::vector<std::string>& launcher = {}) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe: " << std::strerror(errno);
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::vector<std::string> argv = launcher;
    argv.push_back(ARVO_FIM_BIN);
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    std::vector<std::string> envText = Environment(env);
    std::vector<char*> cenv;
    for (auto& e : envText) cenv.push_back(e.data());
    cenv.push_back(nullptr);
    const int rc =
        ::posix_spawn(&m_pid, argv[0].c_str(), &actions, nullptr, cargv.data(), cenv.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    m_fds[0] = out[0];
    m_fds[1] = err[0];
    if (rc != 0) {
      ADD_FAILURE() << "posix_spawn: " << std::strerror(rc);
      m_pid = -1;
    }
  }
  ~Process() {
    if (m_pid > 0 && !m_exit) {
      ::kill(m_pid, SIGKILL);
      int status = 0;
      ::waitpid(m_pid, &status, 0);
    }
    for (int fd : m_fds)
      if (fd >= 0) ::close(fd);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // The next complete line of `stream`; nullopt at end of stream or when
  // the deadline passes.
  std::optional<std::string> ReadLine(Stream stream, Clock::time_point deadline = Deadline()) {
    const int i = stream == Stream::kOut ? 0 : 1;
    for (;;) {
      const std::size_t nl = m_buffers[i].find('\n');
      if (nl != std::string::npos) {
        std::string line = m_buffers[i].substr(0, nl);
        m_buffers[i].erase(0, nl + 1);
        (stream == Stream::kOut ? m_stdoutLines : m_stderrLines).push_back(line);
        return line;
      }
      if (m_fds[i] < 0 || !Fill(deadline)) return std::nullopt;
    }
  }

  // Reads stderr until a line containing `needle`; false at EOF or deadline.
  bool WaitForStderr(const std::string& needle, Clock::time_point deadline = Deadline()) {
    while (auto line = ReadLine(Stream::kErr, deadline))
      if (line->find(needle) != std::string::npos) return true;
    return false;
  }

  // Reads events from stdout until `done(events so far)` is true; false at
  // EOF or deadline. Every event read is kept in Events().
  bool ReadEventsUntil(const std::function<bool(const std::vector<Event>&)>& done,
                       Clock::time_point deadline = Deadline()) {
    while (!done(m_events)) {
      auto line = ReadLine(Stream::kOut, deadline);
      if (!line) return false;
      Event e;
      EXPECT_TRUE(ParseEvent(*line, e)) << "not an event line: " << *line;
      m_events.push_back(std::move(e));
    }
    return true;
  }

  pid_t Pid() const { return m_pid; }

  // Makes the pipe of `stream` as small as the kernel allows (one page), so
  // that the child blocks on output the test has not read yet: what the
  // test has read then tells how far the child got. Best effort.
  void ShrinkPipe(Stream stream) {
    const int fd = m_fds[stream == Stream::kOut ? 0 : 1];
    if (fd >= 0) (void)::fcntl(fd, F_SETPIPE_SZ, 4096);
  }

  void Signal(int sig) {
    if (m_pid > 0) ::kill(m_pid, sig);
  }

  // Stops the child (SIGSTOP) and waits until it has stopped.
  bool Stop() {
    Signal(SIGSTOP);
    int status = 0;
    return m_pid > 0 && ::waitpid(m_pid, &status, WUNTRACED) == m_pid && WIFSTOPPED(status);
  }

  // Drains both streams to their end and reaps the child; its exit code, or
  // 128 + signal, or -1 when it did not end by the deadline.
  int Finish(Clock::time_point deadline = Deadline()) {
    ReadEventsUntil([](const std::vector<Event>&) { return false; }, deadline);
    while (ReadLine(Stream::kErr, deadline)) {
    }
    if (m_pid <= 0) return -1;
    if (m_fds[0] >= 0 || m_fds[1] >= 0) return -1;  // the deadline passed
    int status = 0;
    if (::waitpid(m_pid, &status, 0) != m_pid) return -1;
    m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return *m_exit;
  }

  const std::vector<Event>& Events() const { return m_events; }
  const std::vector<std::string>& StderrLines() const { return m_stderrLines; }
  std::string Stderr() const {
    std::string all;
    for (const auto& l : m_stderrLines) all += l + "\n";
    return all;
  }

  static Clock::time_point Deadline() { return Clock::now() + kDeadline; }

 private:
  static std::vector<std::string> Environment(const std::map<std::string, std::string>& extra) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
      const std::string entry = *e;
      if (!extra.count(entry.substr(0, entry.find('=')))) env.push_back(entry);
    }
    for (const auto& [k, v] : extra) env.push_back(k + "=" + v);
    return env;
  }

  // Waits for data on either stream and appends it; false at deadline or
  // when both streams have ended.
  bool Fill(Clock::time_point deadline) {
    pollfd fds[2] = {{m_fds[0], POLLIN, 0}, {m_fds[1], POLLIN, 0}};
    if (m_fds[0] < 0 && m_fds[1] < 0) return false;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    const int n = ::poll(fds, 2, static_cast<int>(left));
    if (n <= 0) return n < 0 && errno == EINTR;
    for (int i = 0; i < 2; ++i) {
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[65536];
      const ssize_t got = ::read(m_fds[i], buffer, sizeof buffer);
      if (got > 0) {
        m_buffers[i].append(buffer, static_cast<std::size_t>(got));
      } else {
        if (!m_buffers[i].empty() && m_buffers[i].back() != '\n') m_buffers[i].push_back('\n');
        ::close(m_fds[i]);
        m_fds[i] = -1;
      }
    }
    return true;
  }

  pid_t m_pid = -1;
  int m_fds[2] = {-1, -1};
  std::string m_buffers[2];
  std::vector<std::string> m_stdoutLines, m_stderrLines;
  std::vector<Event> m_events;
  std::optional<int> m_exit;
};

// Runs arvo-fim to completion.
struct RunResult {
  int exitCode = -1;
  std::vector<Event> events;
  std::string stderrText;
};

inline RunResult RunFim(const std::vector<std::string>& args,
                        const std::map<std::string, std::string>& env = {}) {
  Process p(args, env);
  RunResult r;
  r.exitCode = p.Finish();
  r.events = p.Events();
  r.stderrText = p.Stderr();
  return r;
}

// Events of `typeName`.
inline std::vector<Event> OfType(const std::vector<Event>& events, const std::string& typeName) {
  std::vector<Event> out;
  for (const Event& e : events)
    if (e.typeName == typeName) out.push_back(e);
  return out;
}

}  // namespace arvo::e2e
