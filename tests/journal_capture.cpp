#include "tests/journal_capture.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace arvo::test {
namespace {

constexpr int kSkipped = 77;
constexpr char kSocket[] = "/run/systemd/journal/socket";

void WriteOut(int fd, const std::string& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t n = ::write(fd, bytes.data() + at, bytes.size() - at);
    if (n <= 0) return;
    at += static_cast<std::size_t>(n);
  }
}

// Each datagram goes to `report` as an 8-byte size and its bytes.
void SendFrame(int report, const std::string& bytes) {
  std::string frame(8, '\0');
  const std::uint64_t size = bytes.size();
  std::memcpy(frame.data(), &size, sizeof size);
  WriteOut(report, frame + bytes);
}

[[noreturn]] void Finish(int report, int code, const std::string& problem) {
  if (!problem.empty()) SendFrame(report, problem);
  ::_exit(code);
}

[[noreturn]] void Skip(int report, const char* what) {
  Finish(report, kSkipped, std::string(what) + ": " + std::strerror(errno));
}

[[noreturn]] void RunChild(int report, const std::function<bool()>& body) {
  if (::unshare(CLONE_NEWNS) != 0) Skip(report, "unshare(CLONE_NEWNS)");
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    Skip(report, "private mounts");
  // Over the journal's own directory when there is one, else over the
  // nearest parent that exists.
  struct stat st;
  const char* top = ::stat("/run/systemd/journal", &st) == 0 ? "/run/systemd/journal"
                    : ::stat("/run/systemd", &st) == 0       ? "/run/systemd"
                                                             : "/run";
  if (::mount("tmpfs", top, "tmpfs", 0, "mode=0755") != 0) Skip(report, "mount a tmpfs");
  ::mkdir("/run/systemd", 0755);
  ::mkdir("/run/systemd/journal", 0755);
  const int sock = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, kSocket);
  if (sock < 0 || ::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
    Skip(report, "bind the journal socket");
  // The child's own frames come first: an empty one says the body ran.
  const bool ok = body();
  SendFrame(report, ok ? "" : "the body failed");
  std::string datagram(1 << 20, '\0');
  for (;;) {
    const ssize_t n = ::recv(sock, datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (n < 0) break;
    SendFrame(report, datagram.substr(0, static_cast<std::size_t>(n)));
  }
  Finish(report, 0, "");
}

std::vector<std::string> ReadFrames(int fd) {
  std::string all;
  char buffer[65536];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) all.append(buffer, n);
  std::vector<std::string> frames;
  for (std::size_t at = 0; at + 8 <= all.size();) {
    std::uint64_t size = 0;
    std::memcpy(&size, all.data() + at, sizeof size);
    frames.push_back(all.substr(at + 8, size));
    at += 8 + size;
  }
  return frames;
}

}  // namespace

JournalCapture CaptureJournal(const std::function<bool()>& body) {
  JournalCapture capture;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    capture.problem = "pipe failed";
    return capture;
  }
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    RunChild(fds[1], body);
  }
  ::close(fds[1]);
  std::vector<std::string> frames = child > 0 ? ReadFrames(fds[0]) : std::vector<std::string>{};
  ::close(fds[0]);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
    capture.problem = "the capturing child did not end normally";
    return capture;
  }
  if (WEXITSTATUS(status) == kSkipped || frames.empty() || !frames[0].empty()) {
    capture.skipped = WEXITSTATUS(status) == kSkipped;
    capture.problem = frames.empty() ? "no report from the child" : frames[0];
    return capture;
  }
  for (std::size_t i = 1; i < frames.size(); ++i) {
    JournalFields entry;
    if (!DecodeJournalDatagram(frames[i], entry)) {
      capture.problem = "undecodable datagram: " + frames[i];
      return capture;
    }
    capture.entries.push_back(std::move(entry));
  }
  return capture;
}

bool DecodeJournalDatagram(const std::string& d, JournalFields& out) {
  std::size_t at = 0;
  while (at < d.size()) {
    const std::size_t nl = d.find('\n', at);
    if (nl == std::string::npos) return false;
    const std::size_t eq = d.find('=', at);
    if (eq != std::string::npos && eq < nl) {
      out.emplace(d.substr(at, eq - at), d.substr(eq + 1, nl - eq - 1));
      at = nl + 1;
      continue;
    }
    if (nl + 9 > d.size()) return false;
    std::uint64_t size = 0;
    for (int i = 7; i >= 0; --i) size = size << 8 | static_cast<unsigned char>(d[nl + 1 + i]);
    const std::size_t value = nl + 9;
    if (size > d.size() || value + size + 1 > d.size() || d[value + size] != '\n') return false;
    out.emplace(d.substr(at, nl - at), d.substr(value, size));
    at = value + size + 1;
  }
  return true;
}

std::string JournalValue(const JournalFields& entry, const std::string& name) {
  return entry.count(name) == 1 ? entry.find(name)->second : std::string();
}

}  // namespace arvo::test
