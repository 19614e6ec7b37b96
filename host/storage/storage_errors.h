// Result codes of the host's storage and serializer for damaged or foreign
// data. They are codes of the product's general facility that the shared
// header does not name; their texts come from the framework's table.
#pragma once

#include "orn/result.h"

namespace arvo::host::errors {

// "Invalid signature": the bytes are not of the expected format at all.
inline constexpr orn::result_t kInvalidSignature = static_cast<orn::result_t>(0x8000005A);
// "Invalid version": a format version this build does not read.
inline constexpr orn::result_t kInvalidVersion = static_cast<orn::result_t>(0x8000005B);
// "Invalid type": a record whose type or shape does not fit its descriptor.
inline constexpr orn::result_t kInvalidType = static_cast<orn::result_t>(0x8000005D);
// "Bases corrupted": truncated data, a failed checksum, malformed content.
inline constexpr orn::result_t kCorrupted = static_cast<orn::result_t>(0x80000069);

}  // namespace arvo::host::errors
