#include "host/output/event_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace arvo::host {

orn::result_t LineWriter::WriteLine(std::string line) {
  line.push_back('\n');
  std::lock_guard lock(m_mutex);
  const int err = WriteAll(m_fd.Get(), line.data(), line.size());
  return err ? orn::ResultFromErrno(err) : orn::errors::kOk;
}

orn::result_t OpenOutput(const std::string& file, ScopedFd& out, std::string& error) {
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
