#include "host/services/tracer.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "host/util/display_text.h"

namespace arvo::host {
namespace {

// Sits in front of every lent buffer. Aligned like max_align_t so that the
// buffer after it is as well aligned as a malloc'd block.
struct alignas(std::max_align_t) RecordHead {
  std::uint32_t level;
};

RecordHead* HeadOf(char* buffer) {
  return reinterpret_cast<RecordHead*>(buffer - sizeof(RecordHead));
}

char* BufferOf(RecordHead* head) { return reinterpret_cast<char*>(head) + sizeof(RecordHead); }

// "2025-11-21T05:51:00.123456Z 800 4711 "
std::size_t FormatLinePrefix(std::uint32_t level, char* out, std::size_t size) {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  tm utc{};
  ::gmtime_r(&ts.tv_sec, &utc);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  const int n = std::snprintf(out, size, "%s.%06ldZ %u %ld ", date, ts.tv_nsec / 1000L, level,
                              static_cast<long>(::syscall(SYS_gettid)));
  return n < 0 ? 0 : std::min(static_cast<std::size_t>(n), size - 1);
}

}  // namespace

bool IsValidTraceLevel(std::uint32_t level) {
  return level == 0 || level == orn::kTraceLevelError || level == orn::kTraceLevelWarning ||
         level == orn::kTraceLevelDetail;
}

Tracer::Tracer(std::uint32_t maxLevel, ScopedFd fd) : m_maxLevel(maxLevel), m_fd(std::move(fd)) {}

orn::result_t Tracer::OpenRecord(std::uint32_t level, orn::TraceRecord* record,
                                 std::size_t capacity) {
  if (!record) return orn::errors::kInvalidArgument;
  if (level == orn::kTraceGrowMarker) {
    if (!record->buffer || capacity < record->length) return orn::errors::kInvalidArgument;
    void* grown = std::realloc(HeadOf(record->buffer), sizeof(RecordHead) + capacity);
    if (!grown) return orn::errors::kOutOfMemory;
    record->buffer = BufferOf(static_cast<RecordHead*>(grown));
    record->capacity = capacity;
    return orn::errors::kOk;
  }
  if (level > m_maxLevel && (!m_tap || level > m_tapLevel)) return orn::errors::kFalse;
  auto* head = static_cast<RecordHead*>(std::malloc(sizeof(RecordHead) + capacity));
  if (!head) return orn::errors::kOutOfMemory;
  head->level = level;
  record->buffer = BufferOf(head);
  record->capacity = capacity;
  record->length = 0;
  record->tracer = this;
  return orn::errors::kOk;
}

void Tracer::SetTap(std::shared_ptr<TraceTap> tap, std::uint32_t level) {
  m_tap = std::move(tap);
  m_tapLevel = m_tap ? level : 0;
}

orn::result_t Tracer::CommitRecord(char* buffer, std::size_t length) {
  if (!buffer) return orn::errors::kInvalidArgument;
  RecordHead* head = HeadOf(buffer);
  const std::uint32_t level = head->level;
  const std::string_view text(buffer, length);
  int err = 0;
  try {
    if (m_tap && level <= m_tapLevel) m_tap->OnLine(level, text);
    if (level <= m_maxLevel) err = WriteLine(level, text);
  } catch (const std::bad_alloc&) {
    err = ENOMEM;
  }
  std::free(head);
  return err ? orn::ResultFromErrno(err) : orn::errors::kOk;
}

int Tracer::WriteLine(std::uint32_t level, std::string_view text) {
  std::string shown;
  if (!IsDisplaySafe(text, true)) {
    AppendDisplayBytes(shown, text, true);
    text = shown;
  }
  char prefix[96];
  const std::size_t prefixLength = FormatLinePrefix(level, prefix, sizeof prefix);
  char newline = '\n';
  iovec parts[3] = {
      {prefix, prefixLength}, {const_cast<char*>(text.data()), text.size()}, {&newline, 1}};
  std::lock_guard lock(m_writeMutex);
  // A short writev is completed part by part; lines stay whole because
  // every writer holds the mutex.
  const ssize_t n = ::writev(m_fd.Get(), parts, 3);
  if (n < 0) return errno;
  std::size_t done = static_cast<std::size_t>(n);
  for (const iovec& part : parts) {
    if (done >= part.iov_len) {
      done -= part.iov_len;
      continue;
    }
    if (const int err =
            WriteAll(m_fd.Get(), static_cast<char*>(part.iov_base) + done, part.iov_len - done))
      return err;
    done = 0;
  }
  return 0;
}

orn::result_t CreateTracer(std::uint32_t maxLevel, const std::string& file,
                           orn::RefPtr<Tracer>& out, std::string& error) {
  ScopedFd fd(file.empty() ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)
                           : ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!fd.Valid()) {
    const int err = errno;
    error = "cannot open trace file '" + file + "': " + std::strerror(err);
    return orn::ResultFromErrno(err);
  }
  out = orn::MakeSimple<Tracer>(maxLevel, std::move(fd));
  return orn::errors::kOk;
}

}  // namespace arvo::host
