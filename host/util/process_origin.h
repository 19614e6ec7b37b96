// The process behind a change, as the fanotify watch backend learns it, and
// the hand-over from the watch backend to the event outputs.
//
// The module's events are fixed and carry no process, but the module
// publishes each on-access event synchronously, on the watch backend's
// delivery thread, inside the receiver's OnEvent. So the backend sets the
// origin of the notification it is delivering for the duration of that call
// (ScopedProcessOrigin, thread-local), and an output formatting an event on
// that thread reads it (CurrentProcessOrigin). An event published on any
// other thread, or by the inotify backend, has no origin: nothing is said
// rather than something wrong.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace arvo::host {

struct ProcessOrigin {
  pid_t pid = 0;
  // The process had exited before it could be read: only `pid` is true.
  bool exited = false;
  // The process lives, but /proc shows nothing of it to this monitor (a
  // hidepid mount, a sandbox's ProtectProc=invisible): only `pid` is true.
  bool hidden = false;
  pid_t parentPid = 0;
  std::optional<uid_t> uid;
  std::optional<uid_t> loginUid;  // absent when unset (4294967295) or unreadable
  std::string executable;         // /proc/<pid>/exe
  std::string command;            // /proc/<pid>/comm
};

// Reads what /proc says of `pid`. With `pidfd` (a descriptor of that very
// process, -1 when there is none) the result is checked against pid reuse:
// if the process is gone once everything was read, the values may belong to
// another process and the result says only that it exited. `procRoot` is
// "/proc" except in tests.
ProcessOrigin ReadProcessOrigin(pid_t pid, int pidfd, const std::string& procRoot = "/proc");

// The origin of the notification being delivered on this thread, or null.
const ProcessOrigin* CurrentProcessOrigin();

// Makes `origin` current on this thread for the guard's lifetime.
class ScopedProcessOrigin {
 public:
  explicit ScopedProcessOrigin(const ProcessOrigin* origin);
  ~ScopedProcessOrigin();
  ScopedProcessOrigin(const ScopedProcessOrigin&) = delete;
  ScopedProcessOrigin& operator=(const ScopedProcessOrigin&) = delete;

 private:
  const ProcessOrigin* m_previous;
};

}  // namespace arvo::host
