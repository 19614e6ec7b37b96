// The host's tracer service and the record protocol the module writes with.
//
// A line is written as: OpenRecord(level, &record, 512) -> compose into the
// lent buffer -> (grow with OpenRecord(kTraceGrowMarker, &record, newCap)) ->
// CommitRecord(buffer, length). A refused open (any non-zero result, or a
// null buffer) means the level is disabled: nothing is composed. The buffer is
// the tracer's; after CommitRecord the module no longer touches it. A line has
// no terminator of its own. Tracers are called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "orn/iobject.h"

namespace orn {

inline constexpr std::uint32_t kTraceLevelError = 300;
inline constexpr std::uint32_t kTraceLevelWarning = 500;
inline constexpr std::uint32_t kTraceLevelDetail = 800;
// Passed in place of a level when an open record asks for more capacity.
inline constexpr std::uint32_t kTraceGrowMarker = 1000;
inline constexpr std::size_t kTraceInitialCapacity = 512;

class ITracer;

struct TraceRecord {
  char* buffer = nullptr;     // lent by the tracer
  std::size_t capacity = 0;   // bytes available at buffer
  std::size_t length = 0;     // bytes composed so far
  ITracer* tracer = nullptr;  // the tracer that lent the buffer
};

class ITracer : public IObject {
 public:
  ORN_INTERFACE_ID(0x6EF3329B);
  // Opens a record at `level` with `capacity` bytes, or, with
  // kTraceGrowMarker, grows an open record to `capacity` bytes keeping its
  // first record->length bytes. 0 = accepted (record->buffer set).
  // The default refuses with errors::kNotSupported, so a tracer that keeps
  // it writes nothing.
  virtual result_t OpenRecord(std::uint32_t level, TraceRecord* record, std::size_t capacity) {
    (void)level;
    (void)record;
    (void)capacity;
    return errors::kNotSupported;
  }
  // Hands the buffer back with the composed length. The default answers
  // errors::kNotSupported (ignored).
  virtual result_t CommitRecord(char* buffer, std::size_t length) {
    (void)buffer;
    (void)length;
    return errors::kNotSupported;
  }

 protected:
  ~ITracer() = default;
};

}  // namespace orn
