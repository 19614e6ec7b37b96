// Writing trace lines through the host's tracer.
//
//   ORN_TRACE(tracer, orn::kTraceLevelDetail) << kPrefix << "Path: " << path;
//
// The level test costs one OpenRecord call: when the tracer is null, refuses
// the level (as the interface's default OpenRecord does) or lends no buffer,
// nothing after the macro is evaluated. A line is committed when the statement ends.
// Strings16 are written as narrow text (lossless, orn/text.h); a null
// `const char*` is written as "(null)". The stream has the standard defaults
// (decimal, fill blank, precision 6). Thread-safe as far as the tracer is;
// each line owns its record.
#pragma once

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include "orn/result.h"
#include "orn/tracer.h"
#include "orn/types.h"

namespace orn {

// std::streambuf over a lent record; grows it through the tracer with the
// marker level. A refused growth drops the text composed so far and
// everything after it.
class TraceBuf final : public std::streambuf {
 public:
  explicit TraceBuf(TraceRecord& record) noexcept;

 protected:
  int_type overflow(int_type ch) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;

 private:
  bool Reserve(std::size_t extra);
  TraceRecord& m_record;
  bool m_dropped = false;
};

class TraceStream {
 public:
  explicit TraceStream(TraceRecord& record);
  TraceStream(const TraceStream&) = delete;
  TraceStream& operator=(const TraceStream&) = delete;

  template <class T>
  TraceStream& operator<<(const T& value) {
    m_os << value;
    return *this;
  }
  TraceStream& operator<<(const char* s) {
    m_os << (s ? s : "(null)");
    return *this;
  }
  TraceStream& operator<<(char* s) { return *this << static_cast<const char*>(s); }
  TraceStream& operator<<(const types::string16_t& s);
  TraceStream& operator<<(const char16_t* s);
  TraceStream& operator<<(std::ios_base& (*f)(std::ios_base&)) {
    m_os << f;
    return *this;
  }
  TraceStream& operator<<(std::ostream& (*f)(std::ostream&)) {
    m_os << f;
    return *this;
  }
  std::ostream& Os() { return m_os; }

 private:
  TraceBuf m_buf;
  std::ostream m_os;
};

// Writes a result as "0x%08x (message)".
struct TraceResult {
  result_t value;
};
inline TraceStream& operator<<(TraceStream& s, TraceResult r) {
  return s << ResultToTraceText(r.value);
}

// One trace line: opens the record on construction, commits it on
// destruction. Converts to true when the line is being composed.
class TraceLine {
 public:
  TraceLine(ITracer* tracer, std::uint32_t level) noexcept;
  ~TraceLine();
  TraceLine(const TraceLine&) = delete;
  TraceLine& operator=(const TraceLine&) = delete;

  explicit operator bool() const noexcept { return m_open; }
  TraceStream& Stream();

 private:
  ITracer* m_tracer;
  TraceRecord m_record{};
  bool m_open = false;
  alignas(TraceStream) unsigned char m_storage[sizeof(TraceStream)];
  TraceStream* m_stream = nullptr;
};

// True when `tracer` would accept a line at `level`; opens and commits an
// empty record to find out, so prefer ORN_TRACE, which tests and writes in
// one step. Used where a value is costly to prepare before tracing.
bool TraceEnabled(ITracer* tracer, std::uint32_t level);

}  // namespace orn

#define ORN_TRACE(tracer, level)                                             \
  if (::orn::TraceLine _orn_trace_line((tracer), (level)); !_orn_trace_line) \
    ;                                                                        \
  else                                                                       \
    _orn_trace_line.Stream()
