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

#include "orn/types.h"

namespace orn::text {

inline types::string16_t NarrowToWide(const types::string8_t& in) {
  types::string16_t out;
  out.reserve(in.size());
  const auto* s = reinterpret_cast<const unsigned char*>(in.data());
  const std::size_t n = in.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = s[i];
    std::uint32_t cp = 0;
    std::size_t len = 0;
    if (c < 0x80) {
      cp = c;
      len = 1;
    } else if (c >= 0xC2 && c <= 0xDF) {
      cp = c & 0x1Fu;
      len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      cp = c & 0x0Fu;
      len = 3;
    } else if (c >= 0xF0 && c <= 0xF4) {
      cp = c & 0x07u;
      len = 4;
    }
    bool ok = len != 0 && i + len <= n;
    for (std::size_t k = 1; ok && k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (s[i + k] & 0x3Fu);
    }
    if (ok && len == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
    if (ok && len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ok = false;
    if (!ok) {
      out.push_back(static_cast<char16_t>(0xDC00 + c));
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += len;
  }
  return out;
}

inline types::string8_t WideToNarrow(const types::string16_t& in) {
  types::string8_t out;
  out.reserve(in.size());
  const std::size_t n = in.size();
  for (std::size_t i = 0; i < n; ++i) {
    std::uint32_t cp = in[i];
    if (cp >= 0xDC80 && cp <= 0xDCFF) {  // an escaped raw byte
      out.push_back(static_cast<char>(cp - 0xDC00));
      continue;
    }
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    }
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
  return out;
}

}  // namespace orn::text
