// The host's tracer: writes each committed record as one line
//   <UTC time with microseconds> <level> <thread id> <text>\n
// to stderr or to a file.
//
// Record protocol: OpenRecord lends a malloc'd block whose first bytes (before
// the lent buffer) remember the record's level; growth reallocates the block
// keeping the composed text; CommitRecord writes the line and frees the block.
// A level above the maximum is refused with errors::kFalse and no buffer.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "host/util/scoped_fd.h"
#include "orn/ref_ptr.h"
#include "orn/simple_object.h"
#include "orn/tracer.h"

namespace arvo::host {

// Trace levels accepted on the command line. 0 turns tracing off.
bool IsValidTraceLevel(std::uint32_t level);

// Thread-safe: lines from concurrent threads never interleave.
class Tracer final : public orn::SimpleObject<orn::ITracer> {
 public:
  // Writes to `fd` (owned); a line is at most one write(2) away from the file.
  Tracer(std::uint32_t maxLevel, ScopedFd fd);

  orn::result_t OpenRecord(std::uint32_t level, orn::TraceRecord* record,
                           std::size_t capacity) override;
  orn::result_t CommitRecord(char* buffer, std::size_t length) override;

  std::uint32_t MaxLevel() const { return m_maxLevel; }

 private:
  const std::uint32_t m_maxLevel;
  std::mutex m_writeMutex;
  ScopedFd m_fd;  // guarded by m_writeMutex for writes
};

// A tracer at `maxLevel` writing to `file`, or to a duplicate of stderr when
// `file` is empty. The file is created when missing and appended to. On
// failure returns the errno-based result and describes it in `error`.
orn::result_t CreateTracer(std::uint32_t maxLevel, const std::string& file,
                           orn::RefPtr<Tracer>& out, std::string& error);

}  // namespace arvo::host
