// The records of a fanotify instance initialised with directory file
// handles and names (FAN_REPORT_DFID_NAME, and the rename target's where the
// kernel has it), decoded into plain values.
//
// Pure functions over a byte buffer: no descriptors are opened here, except
// that a process descriptor (FAN_REPORT_PIDFD) the kernel placed in a record
// is handed to the record's owner.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/util/scoped_fd.h"

namespace arvo::host {

// A directory as the kernel names it: the file system's id and the
// directory's file handle (type and bytes). Comparable, so it can key a cache.
struct FanotifyDirectory {
  std::uint64_t fsid = 0;
  int handleType = 0;
  std::string handle;  // f_handle bytes
  bool Valid() const { return !handle.empty(); }
  bool operator==(const FanotifyDirectory&) const = default;
};

struct FanotifyRecord {
  std::uint64_t mask = 0;          // FAN_* bits, FAN_ONDIR included
  pid_t pid = 0;                   // the process that caused it (0: unknown)
  ScopedFd pidfd;                  // with FAN_REPORT_PIDFD; invalid when the process had exited
  bool pidExited = false;          // the kernel said the process had exited (FAN_NOPIDFD)
  FanotifyDirectory directory;     // where the entry is (the former place for a rename)
  std::string name;                // the entry's name in `directory`; "." for the directory itself
  FanotifyDirectory newDirectory;  // FAN_RENAME only: where it went
  std::string newName;
  bool Overflow() const;
};

// Decodes every whole record in [data, data + size) and appends them to
// `out`. Records it does not understand (a version it was not built for, no
// directory information) are skipped; their descriptors are closed. Returns
// the number of bytes consumed.
std::size_t DecodeFanotifyRecords(const char* data, std::size_t size,
                                  std::vector<FanotifyRecord>& out);

}  // namespace arvo::host
