// The host's tracer: writes each committed record as one line
//   <UTC time with microseconds> <level> <thread id> <text>\n
// to stderr or to a file.
//
// Record protocol: OpenRecord lends a malloc'd block whose first bytes (before
// the lent buffer) remember the record's level; growth reallocates the block
// keeping the composed text; CommitRecord writes the line and frees the block.
// A level above the maximum is refused with errors::kFalse and no buffer.
//
// The text of a line is written in its printable form (host/util/
// display_text.h, tabs kept): a path carrying a newline or raw bytes cannot
// forge a line of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "host/util/scoped_fd.h"
#include "orn/ref_ptr.h"
#include "orn/simple_object.h"
#include "orn/tracer.h"

namespace arvo::host {

// Trace levels accepted on the command line. 0 turns tracing off.
bool IsValidTraceLevel(std::uint32_t level);

// Sees the raw text of every committed line up to its level, whatever the
// level the tracer writes: how the host learns why a run failed without
// asking the user for a detailed trace. Called on the tracing thread, without
// the tracer's lock; implementations are thread-safe and never trace.
class TraceTap {
 public:
  virtual ~TraceTap() = default;
  virtual void OnLine(std::uint32_t level, std::string_view text) = 0;
};

// Thread-safe: lines from concurrent threads never interleave.
class Tracer final : public orn::SimpleObject<orn::ITracer> {
 public:
  // Writes to `fd` (owned); a line is at most one write(2) away from the file.
  Tracer(std::uint32_t maxLevel, ScopedFd fd);

  orn::result_t OpenRecord(std::uint32_t level, orn::TraceRecord* record,
                           std::size_t capacity) override;
  orn::result_t CommitRecord(char* buffer, std::size_t length) override;

  std::uint32_t MaxLevel() const { return m_maxLevel; }

  // Hands every line up to `level` to `tap` as well. Set before the tracer
  // is shared with other threads.
  void SetTap(std::shared_ptr<TraceTap> tap, std::uint32_t level);

 private:
  // Returns 0 or the errno of the failed write.
  int WriteLine(std::uint32_t level, std::string_view text);

  const std::uint32_t m_maxLevel;
  std::shared_ptr<TraceTap> m_tap;
  std::uint32_t m_tapLevel = 0;
  std::mutex m_writeMutex;
  ScopedFd m_fd;  // guarded by m_writeMutex for writes
};

// A tracer at `maxLevel` writing to `file`, or to a duplicate of stderr when
// `file` is empty. The file is created when missing and appended to. On
// failure returns the errno-based result and describes it in `error`.
orn::result_t CreateTracer(std::uint32_t maxLevel, const std::string& file,
                           orn::RefPtr<Tracer>& out, std::string& error);

}  // namespace arvo::host
