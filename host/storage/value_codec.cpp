#include "host/storage/value_codec.h"

#include <string>
#include <utility>

namespace arvo::host {
namespace {

using Kind = orn::serial::Value::Kind;
using orn::serial::Value;

constexpr std::uint8_t kTagNull = 0;
constexpr std::uint8_t kTagUInt = 1;
constexpr std::uint8_t kTagBytes = 2;
constexpr std::uint8_t kTagText = 3;
constexpr std::uint8_t kTagList = 4;
constexpr std::uint8_t kTagRecord = 5;

bool DecodeAt(ByteReader& in, Value& out, int depth);

// A count of items that each take at least `minBytes`: more than the input
// can hold means the input is malformed.
bool ReadCount(ByteReader& in, std::size_t minBytes, std::size_t& count) {
  std::uint64_t n = 0;
  if (!in.Var(n) || n > in.Remaining() / minBytes) return false;
  count = static_cast<std::size_t>(n);
  return true;
}

bool DecodeText(ByteReader& in, Value& out) {
  std::size_t units = 0;
  const std::uint8_t* data = nullptr;
  if (!ReadCount(in, 2, units) || !in.Raw(units * 2, data)) return false;
  out.text.resize(units);
  for (std::size_t i = 0; i < units; ++i)
    out.text[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
  return true;
}

bool DecodeList(ByteReader& in, Value& out, int depth) {
  std::size_t count = 0;
  if (!ReadCount(in, 1, count)) return false;
  for (std::size_t i = 0; i < count; ++i) {
    Value item;
    if (!DecodeAt(in, item, depth + 1)) return false;
    out.items.push_back(std::move(item));
  }
  return true;
}

bool DecodeRecord(ByteReader& in, Value& out, int depth) {
  std::size_t count = 0;
  if (!ReadCount(in, 2, count)) return false;
  for (std::size_t i = 0; i < count; ++i) {
    std::string_view name;
    Value value;
    if (!in.Sized(name) || !DecodeAt(in, value, depth + 1)) return false;
    out.fields.emplace_back(std::string(name), std::move(value));
  }
  return true;
}

bool DecodeAt(ByteReader& in, Value& out, int depth) {
  std::uint8_t kind = 0;
  if (depth > kMaxValueDepth || !in.U8(kind)) return false;
  out = Value();
  switch (kind) {
    case kTagNull:
      return true;
    case kTagUInt:
      out.kind = Kind::kUInt;
      return in.Var(out.number);
    case kTagBytes: {
      out.kind = Kind::kBytes;
      std::string_view b;
      if (!in.Sized(b)) return false;
      out.bytes.assign(b);
      return true;
    }
    case kTagText:
      out.kind = Kind::kText16;
      return DecodeText(in, out);
    case kTagList:
      out.kind = Kind::kList;
      return DecodeList(in, out, depth);
    case kTagRecord:
      out.kind = Kind::kRecord;
      return DecodeRecord(in, out, depth);
    default:
      return false;
  }
}

}  // namespace

void EncodeValue(const Value& value, ByteWriter& out) {
  // Tags are written explicitly: the format must not follow a reordering of
  // the Kind enumeration.
  switch (value.kind) {
    case Kind::kNull:
      out.U8(kTagNull);
      break;
    case Kind::kUInt:
      out.U8(kTagUInt);
      out.Var(value.number);
      break;
    case Kind::kBytes:
      out.U8(kTagBytes);
      out.Sized(value.bytes.data(), value.bytes.size());
      break;
    case Kind::kText16:
      out.U8(kTagText);
      out.Var(value.text.size());
      for (char16_t u : value.text) {
        out.U8(static_cast<std::uint8_t>(u & 0xFF));
        out.U8(static_cast<std::uint8_t>(u >> 8));
      }
      break;
    case Kind::kList:
      out.U8(kTagList);
      out.Var(value.items.size());
      for (const Value& item : value.items) EncodeValue(item, out);
      break;
    case Kind::kRecord:
      out.U8(kTagRecord);
      out.Var(value.fields.size());
      for (const auto& [name, field] : value.fields) {
        out.Sized(name.data(), name.size());
        EncodeValue(field, out);
      }
      break;
  }
}

bool DecodeValue(ByteReader& in, Value& out) { return DecodeAt(in, out, 0); }

}  // namespace arvo::host
