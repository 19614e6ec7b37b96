#include "host/output/event_output.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/util/standard_streams.h"

namespace arvo::host {

LineWriter::LineWriter(ScopedFd fd)
    : m_fd(std::move(fd)), m_failed(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

orn::result_t LineWriter::WriteLine(std::string line) {
  line.push_back('\n');
  std::lock_guard lock(m_mutex);
  if (m_beforeWrite) m_beforeWrite();
  const int err = WriteAll(m_fd.Get(), line.data(), line.size());
  if (err == 0) return orn::errors::kOk;
  int none = 0;
  if (m_failedErrno.compare_exchange_strong(none, err) && m_failed.Valid()) {
    const std::uint64_t one = 1;
    (void)WriteAll(m_failed.Get(), &one, sizeof one);
  }
  return orn::ResultFromErrno(err);
}

void LineWriter::Replace(ScopedFd fd) {
  std::lock_guard lock(m_mutex);
  m_fd = std::move(fd);
}

orn::result_t OpenOutput(const std::string& file, ScopedFd& out, std::string& error) {
  if (file.empty() && StandardOutputWasClosed()) {
    error = "standard output is closed: events could not be written (give --output FILE)";
    return orn::errors::kInvalidHandle;
  }
  ScopedFd fd(file.empty() ? ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                           : ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!fd.Valid()) {
    const int err = errno;
    error = file.empty() ? std::string("cannot use standard output: ")
                         : "cannot open output file '" + file + "': ";
    error += std::strerror(err);
    return orn::ResultFromErrno(err);
  }
  out = std::move(fd);
  return orn::errors::kOk;
}

OutputFormat DefaultFormatFor(int fd) {
  return ::isatty(fd) ? OutputFormat::kText : OutputFormat::kJson;
}

EventOutput::EventOutput(std::shared_ptr<LineWriter> writer, OutputFormat format)
    : m_writer(std::move(writer)), m_format(format) {}

orn::result_t EventOutput::Publish(const pax::ProductEvent& event) {
  try {
    std::string line = m_format == OutputFormat::kJson
                           ? FormatEventJson(event, CurrentProcessOrigin())
                           : FormatEventText(event, CurrentProcessOrigin());
    if (event.eventType < m_counts.size())
      m_counts[event.eventType].fetch_add(1, std::memory_order_relaxed);
    return m_writer->WriteLine(std::move(line));
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
}

std::uint64_t EventOutput::Count(std::uint32_t eventType) const {
  return eventType < m_counts.size() ? m_counts[eventType].load(std::memory_order_relaxed) : 0;
}

}  // namespace arvo::host
