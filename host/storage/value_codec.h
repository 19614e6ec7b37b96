// Binary encoding of orn::serial::Value trees.
//
// A value is its kind byte (0 null, 1 unsigned, 2 bytes, 3 UTF-16 text,
// 4 list, 5 record) and then: an unsigned number as LEB128; bytes as a
// LEB128 length and the bytes; text as a LEB128 count of code units and the
// units as little-endian pairs; a list as a LEB128 count and the items; a
// record as a LEB128 count and, per field, its name (length and bytes) and
// its value.
#pragma once

#include <cstdint>
#include <vector>

#include "host/storage/byte_codec.h"
#include "orn/serialization.h"

namespace arvo::host {

// Trees nested deeper than this are refused by DecodeValue.
inline constexpr int kMaxValueDepth = 64;

void EncodeValue(const orn::serial::Value& value, ByteWriter& out);

// Reads one value. False on truncated or malformed input, an unknown kind,
// or nesting deeper than kMaxValueDepth; `out` is then unspecified. A count
// larger than the bytes left could hold is refused at once, and storage grows
// only with items actually read, so what hostile input makes it allocate
// stays proportional to the input's size.
bool DecodeValue(ByteReader& in, orn::serial::Value& out);

}  // namespace arvo::host
