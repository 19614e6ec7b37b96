// The daemon's pid file: the daemon holds an exclusive flock on it for its
// whole life, so whether a daemon runs is known without trusting a stale
// pid (a lock dies with its process).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "host/util/scoped_fd.h"

namespace arvo::host {

// Owns the locked pid file. The lock is released (and the file left in
// place) when the owner is destroyed or the process ends.
class PidFileLock {
 public:
  // Creates or opens `file` (mode 0644), takes the exclusive lock without
  // waiting and writes this process's pid into it. Fails when another
  // process holds the lock ("... is already running (pid N)").
  bool Acquire(const std::string& file, std::string& error);

 private:
  ScopedFd m_fd;
};

// The pid written in `file` when a process holds its lock; empty when the
// file is missing or nobody holds it. Takes a shared lock without waiting
// (released at once), so it never blocks or disturbs the holder.
std::optional<pid_t> LockedPid(const std::string& file);

}  // namespace arvo::host
