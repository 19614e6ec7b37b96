#include "host/util/process_origin.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace arvo::host {
namespace {

thread_local const ProcessOrigin* t_current = nullptr;

std::string ReadFirstLine(const std::string& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string ReadLink(const std::string& link) {
  std::string target(PATH_MAX, '\0');
  const ssize_t n = ::readlink(link.c_str(), target.data(), target.size());
  if (n <= 0) return {};
  target.resize(static_cast<std::size_t>(n));
  return target;
}

// "PPid:" and the real uid of "Uid:" from /proc/<pid>/status.
bool ReadStatus(const std::string& file, ProcessOrigin& origin) {
  std::ifstream in(file);
  std::string line;
  bool found = false;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string key;
    fields >> key;
    if (key == "PPid:") {
      fields >> origin.parentPid;
      found = true;
    } else if (key == "Uid:") {
      uid_t uid = 0;
      if (fields >> uid) origin.uid = uid;
    }
  }
  return found;
}

bool Alive(int pidfd) {
#ifdef SYS_pidfd_send_signal
  return ::syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) == 0;
#else
  (void)pidfd;
  return true;
#endif
}

// Without a pidfd the pid may have been reused, but a process by that number
// exists: enough to call it hidden rather than exited, never to name it.
bool Alive(pid_t pid, int pidfd) {
  if (pidfd >= 0) return Alive(pidfd);
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace

ProcessOrigin ReadProcessOrigin(pid_t pid, int pidfd, const std::string& procRoot) {
  ProcessOrigin origin;
  origin.pid = pid;
  if (pid <= 0 || (pidfd >= 0 && !Alive(pidfd))) {
    origin.exited = true;
    return origin;
  }
  const std::string dir = procRoot + "/" + std::to_string(pid);
  if (!ReadStatus(dir + "/status", origin)) {
    ProcessOrigin unread;
    unread.pid = pid;
    (Alive(pid, pidfd) ? unread.hidden : unread.exited) = true;
    return unread;
  }
  origin.command = ReadFirstLine(dir + "/comm");
  origin.executable = ReadLink(dir + "/exe");
  const std::string login = ReadFirstLine(dir + "/loginuid");
  if (!login.empty() && login != "4294967295") {
    try {
      origin.loginUid = static_cast<uid_t>(std::stoul(login));
    } catch (...) {
    }
  }
  // What was read belongs to this process only if it still lives now.
  if (pidfd >= 0 && !Alive(pidfd)) {
    ProcessOrigin exited;
    exited.pid = pid;
    exited.exited = true;
    return exited;
  }
  return origin;
}

const ProcessOrigin* CurrentProcessOrigin() { return t_current; }

ScopedProcessOrigin::ScopedProcessOrigin(const ProcessOrigin* origin) : m_previous(t_current) {
  t_current = origin;
}

ScopedProcessOrigin::~ScopedProcessOrigin() { t_current = m_previous; }

}  // namespace arvo::host
