// Where events go: the host's IEventPublisher prints every product event as
// one line (host/event_format.h) to stdout or a file.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "host/output/event_format.h"
#include "host/util/scoped_fd.h"
#include "orn/ref_ptr.h"
#include "orn/simple_object.h"
#include "pax/product_event.h"

namespace arvo::host {

// Writes whole lines to one descriptor. Thread-safe: each line is one
// write(2) under a mutex, so lines never interleave and a reader sees each
// line as soon as it is complete (no user-space buffering).
//
// The first failed write is remembered (FailedErrno) and makes FailedFd
// readable, so that a command waiting in poll() learns at once that its
// events are being lost (a reader that went away: EPIPE, with SIGPIPE
// ignored) and can stop instead of accepting changes nobody saw.
class LineWriter {
 public:
  explicit LineWriter(ScopedFd fd);
  // Appends "\n" to `line` and writes it. Returns 0 or the errno-based result.
  orn::result_t WriteLine(std::string line);

  // Called under the writer's lock before each line (a terminal's progress
  // line is cleared there). Set before the writer is shared.
  void SetBeforeWrite(std::function<void()> hook) { m_beforeWrite = std::move(hook); }

  // Makes later lines go to `fd` (a reopened output file).
  void Replace(ScopedFd fd);

  int FailedErrno() const { return m_failedErrno.load(); }
  // Readable once a write failed; -1 when no eventfd could be made.
  int FailedFd() const { return m_failed.Get(); }

 private:
  std::mutex m_mutex;
  ScopedFd m_fd;  // guarded by m_mutex
  std::function<void()> m_beforeWrite;
  std::atomic<int> m_failedErrno{0};
  ScopedFd m_failed;
};

// Opens the output: `file` created or appended to, or a duplicate of stdout
// when `file` is empty. On failure describes it in `error`.
orn::result_t OpenOutput(const std::string& file, ScopedFd& out, std::string& error);

// JSON when `fd` is not a terminal, text on a terminal.
OutputFormat DefaultFormatFor(int fd);

// Thread-safe: events arrive on the inotify delivery thread and on the scan
// worker thread at once. Counts the events it printed, by type.
class EventOutput final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  EventOutput(std::shared_ptr<LineWriter> writer, OutputFormat format);

  // Formats and writes the event; the write failure, if any, is returned.
  orn::result_t Publish(const pax::ProductEvent& event) override;

  // Events of `eventType` published so far (types above 511 are not counted).
  std::uint64_t Count(std::uint32_t eventType) const;

 private:
  std::shared_ptr<LineWriter> m_writer;
  const OutputFormat m_format;
  std::array<std::atomic<std::uint64_t>, 512> m_counts{};
};

}  // namespace arvo::host
