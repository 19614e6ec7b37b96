// The printable form of text for lines read by people (the text event form,
// trace lines): one record stays one line whatever bytes it carries.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "orn/types.h"

namespace arvo::host {

// Appends "\\<kind>" and `value` as `digits` lower-case hex digits.
void AppendEscape(std::string& out, char kind, std::uint32_t value, int digits);

// Appends `text` with each lone surrogate escape U+DC80..U+DCFF (a byte that
// was not valid UTF-8) shown as \xNN, other lone surrogates as \uXXXX,
// controls and DEL as \xNN and a backslash as \\. With `keepTabs` a tab is
// written as it is (trace lines separate their fields with one).
void AppendDisplay(std::string& out, const orn::types::string16_t& text, bool keepTabs = false);

// The same for bytes, decoded as orn::text::NarrowToWide does.
void AppendDisplayBytes(std::string& out, std::string_view bytes, bool keepTabs = false);

// True when AppendDisplayBytes would copy `bytes` unchanged.
bool IsDisplaySafe(std::string_view bytes, bool keepTabs = false);

}  // namespace arvo::host
