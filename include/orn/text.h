// Lossless conversion between narrow byte text and UTF-16.
//
// Narrow text is decoded as UTF-8. A byte that is not part of a valid,
// shortest-form UTF-8 sequence (or that would encode a surrogate) becomes the
// lone low surrogate U+DC00 + byte (0xDC80..0xDCFF). WideToNarrow reverses the
// mapping, so NarrowToWide followed by WideToNarrow returns the original bytes
// for every input. Other lone surrogates in wide text are written as their
// three-byte generalised UTF-8 form. Header-only so that the module and the
// host agree on the mapping byte for byte.
#pragma once

#include <cstdint>
#include <string_view>

#include "orn/types.h"

namespace orn::text {

struct DecodedChar {
  std::uint32_t cp;  // a code point, or 0xDC00 + byte for an escaped byte
  std::size_t len;   // bytes consumed (1 for an escaped byte)
};

// The character at s[i] (i < s.size()): a valid shortest-form UTF-8
// sequence, or one byte mapped to its escape surrogate.
inline DecodedChar DecodeUtf8At(std::string_view s, std::size_t i) {
  const auto c = static_cast<unsigned char>(s[i]);
  if (c < 0x80) return {c, 1};
  std::uint32_t cp = 0;
  std::size_t len = 0;
  if (c >= 0xC2 && c <= 0xDF) {
    cp = c & 0x1Fu;
    len = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    cp = c & 0x0Fu;
    len = 3;
  } else if (c >= 0xF0 && c <= 0xF4) {
    cp = c & 0x07u;
    len = 4;
  }
  bool ok = len != 0 && i + len <= s.size();
  for (std::size_t k = 1; ok && k < len; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) ok = false;
    cp = (cp << 6) | (b & 0x3Fu);
  }
  if (ok && len == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
  if (ok && len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ok = false;
  if (!ok) return {0xDC00u + c, 1};
  return {cp, len};
}

// Appends `cp` as (generalised) UTF-8.
inline void AppendUtf8(types::string8_t& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// Walks UTF-16 text joining surrogate pairs: visit(cp, lone) for each code
// point, `lone` true for an unpaired surrogate.
template <class Visit>
void ForEachCodePoint(const types::string16_t& text, Visit&& visit) {
  const std::size_t n = text.size();
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint32_t unit = text[i];
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < n && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      visit(0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00u), false);
      ++i;
    } else {
      visit(unit, unit >= 0xD800 && unit <= 0xDFFF);
    }
  }
}

inline types::string16_t NarrowToWide(const types::string8_t& in) {
  types::string16_t out;
  out.reserve(in.size());
  for (std::size_t i = 0; i < in.size();) {
    const DecodedChar ch = DecodeUtf8At(in, i);
    if (ch.cp >= 0x10000) {
      const std::uint32_t v = ch.cp - 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(ch.cp));
    }
    i += ch.len;
  }
  return out;
}

inline types::string8_t WideToNarrow(const types::string16_t& in) {
  types::string8_t out;
  out.reserve(in.size());
  ForEachCodePoint(in, [&out](std::uint32_t cp, bool lone) {
    if (lone && cp >= 0xDC80 && cp <= 0xDCFF) {
      out.push_back(static_cast<char>(cp - 0xDC00));  // an escaped raw byte
    } else {
      AppendUtf8(out, cp);
    }
  });
  return out;
}

}  // namespace orn::text
