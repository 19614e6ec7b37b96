// One run at a time on one database: an advisory lock on "<database>.lock"
// held for the whole run, with the holder's pid written in the file so that
// a waiting run can say whom it waits for.
//
// The lock is an open file description lock (fcntl F_OFD_SETLK): it belongs
// to the descriptor, so two RunLock objects conflict even inside one process,
// and the kernel drops it when the holder dies, whatever the state of the
// file. Readers of the database (status) never take it.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/util/scoped_fd.h"

namespace arvo::host {

// Used by one thread.
class RunLock {
 public:
  enum class State { kTaken, kBusy, kError };

  explicit RunLock(std::string path) : m_path(std::move(path)) {}

  // Takes the lock without waiting. kBusy: another holder has it (Holder()
  // tells its pid when it wrote one, else 0). kError: see Error().
  State TryTake();
  // Gives the lock up (also on destruction); the file stays.
  void Release() { m_fd.Reset(); }

  bool Held() const { return m_fd.Valid(); }
  pid_t Holder() const { return m_holder; }
  const std::string& Error() const { return m_error; }
  const std::string& Path() const { return m_path; }

  // The pid of the process holding the lock at `path`, 0 when none does or
  // it wrote none. Never waits and never takes the lock.
  static pid_t QueryHolder(const std::string& path);

 private:
  const std::string m_path;
  ScopedFd m_fd;  // valid while the lock is held
  pid_t m_holder = 0;
  std::string m_error;
};

// "<database>.lock"
std::string RunLockPathFor(const std::string& database);

}  // namespace arvo::host
