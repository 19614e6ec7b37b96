#include "framework/trace.h"

#include <algorithm>
#include <new>

#include "orn/text.h"

namespace orn {
namespace {

// Minimal tracer that keeps both defaults; its vtable tells which slots of
// another tracer are still the defaults. Relies on the Itanium C++ ABI
// (vtable pointer first, virtual functions in declaration order after the
// three IObject slots), which both supported targets use.
class DefaultTracerProbe final : public ITracer {
 public:
  std::uint32_t AddRef() override { return 1; }
  std::uint32_t Release() override { return 1; }
  result_t QueryInterface(iid_t, void** out) override {
    *out = nullptr;
    return errors::kNoInterface;
  }
};

constexpr std::size_t kOpenSlot = 3;
constexpr std::size_t kCommitSlot = 4;

const void* Slot(const ITracer* tracer, std::size_t slot) noexcept {
  const void* const* vtable = *reinterpret_cast<const void* const* const*>(tracer);
  return vtable[slot];
}

bool Overrides(ITracer* tracer, std::size_t slot) noexcept {
  static const DefaultTracerProbe probe;
  return tracer != nullptr && Slot(tracer, slot) != Slot(&probe, slot);
}

}  // namespace

bool TracerCanOpen(ITracer* tracer) noexcept { return Overrides(tracer, kOpenSlot); }
bool TracerCanCommit(ITracer* tracer) noexcept { return Overrides(tracer, kCommitSlot); }

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

TraceLine::TraceLine(ITracer* tracer, std::uint32_t level) noexcept : m_tracer(tracer) {
  if (!TracerCanOpen(tracer)) return;
  m_record.tracer = tracer;
  if (tracer->OpenRecord(level, &m_record, kTraceInitialCapacity) != 0) return;
  if (m_record.buffer == nullptr) return;
  m_record.length = 0;
  m_open = true;
}

TraceLine::~TraceLine() {
  if (!m_open) return;
  if (m_stream) m_stream->~TraceStream();
  if (TracerCanCommit(m_tracer)) (void)m_tracer->CommitRecord(m_record.buffer, m_record.length);
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
