// The framework's text and byte types.
//
// string8_t is narrow text. When it holds a path it is a byte string in the
// file system's encoding: any byte except NUL may appear, valid UTF-8 or not.
// string16_t is UTF-16. Conversions between the two (orn/text.h) are lossless
// for every byte sequence.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orn::types {
using string8_t = std::string;
using string16_t = std::u16string;
using blob_t = std::vector<std::uint8_t>;
}  // namespace orn::types

namespace pax {
// A path as narrow text in the file system's encoding (bytes).
using NativePath = std::string;
}  // namespace pax
