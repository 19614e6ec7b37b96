// The progress line a command keeps on a terminal. Shown and cleared under
// one lock, so that an event line written to the same terminal (through
// LineWriter::SetBeforeWrite) starts on a clean line instead of being glued
// to the progress text.
#pragma once

#include <mutex>
#include <string>

namespace arvo::host {

// Thread-safe. Writes to `fd`, which it does not own.
class ProgressLine {
 public:
  explicit ProgressLine(int fd) : m_fd(fd) {}

  // Replaces the line with `text`.
  void Show(const std::string& text);
  // Erases the line when one is shown.
  void Clear();

 private:
  const int m_fd;
  std::mutex m_mutex;
  bool m_shown = false;  // guarded by m_mutex
};

}  // namespace arvo::host
