#include "host/util/display_text.h"

#include <cstdint>

#include "orn/text.h"

namespace arvo::host {
namespace {

constexpr char kHex[] = "0123456789abcdef";

}  // namespace

void AppendEscape(std::string& out, char kind, std::uint32_t value, int digits) {
  out.push_back('\\');
  out.push_back(kind);
  for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
    out.push_back(kHex[(value >> shift) & 0xF]);
}

void AppendDisplay(std::string& out, const orn::types::string16_t& text, bool keepTabs) {
  orn::text::ForEachCodePoint(text, [&](std::uint32_t cp, bool lone) {
    if (lone && cp >= 0xDC80 && cp <= 0xDCFF) {
      AppendEscape(out, 'x', cp - 0xDC00, 2);
    } else if (lone) {
      AppendEscape(out, 'u', cp, 4);
    } else if (cp == '\t' && keepTabs) {
      out.push_back('\t');
    } else if (cp < 0x20 || cp == 0x7F) {
      AppendEscape(out, 'x', cp, 2);
    } else if (cp == '\\') {
      out += "\\\\";
    } else {
      orn::text::AppendUtf8(out, cp);
    }
  });
}

void AppendDisplayBytes(std::string& out, std::string_view bytes, bool keepTabs) {
  if (IsDisplaySafe(bytes, keepTabs)) {
    out.append(bytes);
    return;
  }
  AppendDisplay(out, orn::text::NarrowToWide(std::string(bytes)), keepTabs);
}

bool IsDisplaySafe(std::string_view bytes, bool keepTabs) {
  for (const char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    if (b == '\t' && keepTabs) continue;
    if (b < 0x20 || b >= 0x7F || b == '\\') return false;
  }
  return true;
}

}  // namespace arvo::host
