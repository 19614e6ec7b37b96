// The events log: every event appended, as one JSON line, to a file that
// log rotation can move away (Reopen starts a new file at the same path).
#pragma once

#include <mutex>
#include <string>

#include "host/util/scoped_fd.h"
#include "orn/simple_object.h"
#include "pax/product_event.h"

namespace arvo::host {

// Thread-safe: events arrive on the inotify delivery thread and the scan
// worker thread while the daemon loop reopens or moves the file. Each line
// is one write(2) under the lock, so a reopen never splits a line.
class EventsLog final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  // Opens `path` for appending (created with mode 0640, its missing
  // directories with 0750) and closes the previous file; an empty `path`
  // closes it and publishing then writes nothing. On failure the previous
  // file stays in use and `error` says why.
  bool Open(const std::string& path, std::string& error);
  // Opens the same path again (after the file was renamed or removed).
  bool Reopen(std::string& error);
  std::string Path() const;

  orn::result_t Publish(const pax::ProductEvent& event) override;

 private:
  mutable std::mutex m_mutex;
  std::string m_path;  // guarded by m_mutex
  ScopedFd m_fd;       // guarded by m_mutex
};

}  // namespace arvo::host
