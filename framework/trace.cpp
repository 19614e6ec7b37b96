#include "framework/trace.h"

#include <algorithm>
#include <new>

#include "orn/text.h"

namespace orn {

TraceBuf::TraceBuf(TraceRecord& record) noexcept : m_record(record) {}

bool TraceBuf::Reserve(std::size_t extra) {
  if (m_dropped) return false;
  const std::size_t needed = m_record.length + extra;
  if (needed <= m_record.capacity) return true;
  const std::size_t want = std::max(needed, m_record.capacity * 2);
  if (m_record.tracer == nullptr ||
      m_record.tracer->OpenRecord(kTraceGrowMarker, &m_record, want) != 0 ||
      m_record.buffer == nullptr || m_record.capacity < needed) {
    // The rest of the line is lost; what was composed is dropped too so that
    // a truncated line is never mistaken for a whole one.
    m_dropped = true;
    m_record.length = 0;
    m_record.capacity = 0;
    return false;
  }
  return true;
}

TraceBuf::int_type TraceBuf::overflow(int_type ch) {
  if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
  if (!Reserve(1)) return ch;  // swallowed: the stream must not go bad
  m_record.buffer[m_record.length++] = traits_type::to_char_type(ch);
  return ch;
}

std::streamsize TraceBuf::xsputn(const char* s, std::streamsize n) {
  if (n <= 0) return 0;
  const auto count = static_cast<std::size_t>(n);
  if (!Reserve(count)) return n;
  std::copy_n(s, count, m_record.buffer + m_record.length);
  m_record.length += count;
  return n;
}

TraceStream::TraceStream(TraceRecord& record) : m_buf(record), m_os(&m_buf) {}

TraceStream& TraceStream::operator<<(const types::string16_t& s) {
  m_os << text::WideToNarrow(s);
  return *this;
}

TraceStream& TraceStream::operator<<(const char16_t* s) {
  if (!s) return *this << static_cast<const char*>(nullptr);
  return *this << types::string16_t(s);
}

// Every tracer is asked, whether or not it keeps the interface's default
// operations: a default OpenRecord refuses (errors::kNotSupported), so the
// line is not composed, and a default CommitRecord answers the same and is
// ignored. Telling the defaults apart by their address would need the
// host's copy of them, which the module cannot see: the host and the module
// each compile their own.
TraceLine::TraceLine(ITracer* tracer, std::uint32_t level) noexcept : m_tracer(tracer) {
  if (tracer == nullptr) return;
  m_record.tracer = tracer;
  if (tracer->OpenRecord(level, &m_record, kTraceInitialCapacity) != 0) return;
  if (m_record.buffer == nullptr) return;
  m_record.length = 0;
  m_open = true;
}

TraceLine::~TraceLine() {
  if (!m_open) return;
  if (m_stream) m_stream->~TraceStream();
  (void)m_tracer->CommitRecord(m_record.buffer, m_record.length);
}

TraceStream& TraceLine::Stream() {
  if (!m_stream) m_stream = ::new (static_cast<void*>(m_storage)) TraceStream(m_record);
  return *m_stream;
}

bool TraceEnabled(ITracer* tracer, std::uint32_t level) {
  TraceLine line(tracer, level);
  return static_cast<bool>(line);
}

}  // namespace orn
