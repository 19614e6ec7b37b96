// Fuzzes the JSON string escapes of event lines: any byte string written
// with AppendJsonBytes, and any UTF-16 text written with AppendJsonString,
// reads back unchanged through a strict JSON reader, and the quoted string
// holds no raw control byte (one event stays one line).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "host/output/event_format.h"
#include "tests/e2e/json_value.h"

namespace {

arvo::test::JsonValue ReadString(const std::string& json) {
  for (const char c : json)
    if (static_cast<unsigned char>(c) < 0x20) std::abort();
  arvo::test::JsonValue value;
  if (!arvo::test::JsonReader(json).Parse(value)) std::abort();
  if (value.kind != arvo::test::JsonValue::Kind::kString) std::abort();
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::string json;
  arvo::host::AppendJsonBytes(json, bytes);
  if (ReadString(json).Bytes() != bytes) std::abort();

  orn::types::string16_t units;
  for (std::size_t i = 0; i + 1 < size; i += 2)
    units.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
  json.clear();
  arvo::host::AppendJsonString(json, units);
  if (ReadString(json).text != units) std::abort();
  return 0;
}
