// A small, strict JSON reader for tests that check arvo-fim's output lines.
// Strings decode to UTF-16 so that lone surrogate escapes (\udcXX, the
// output's mapping of bytes that are not UTF-8) survive; Bytes() turns them
// back into the original bytes. Raw text inside strings must be valid UTF-8.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orn/text.h"

namespace arvo::test {

struct JsonValue {
  enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject };
  Kind kind = Kind::kNull;
  bool boolean = false;
  std::string number;  // the literal text
  std::u16string text;
  std::vector<JsonValue> items;
  std::vector<std::pair<std::string, JsonValue>> members;

  // Declared here and defaulted below the class: clang instantiates the
  // members' destructor where the class is still incomplete otherwise.
  JsonValue() = default;
  JsonValue(const JsonValue&);
  JsonValue(JsonValue&&) noexcept;
  JsonValue& operator=(const JsonValue&);
  JsonValue& operator=(JsonValue&&) noexcept;
  ~JsonValue();

  // Member `key` of an object, or null when absent.
  const JsonValue* Find(std::string_view key) const {
    for (const auto& [k, v] : members)
      if (k == key) return &v;
    return nullptr;
  }
  // Member `key`, or a shared null value.
  const JsonValue& operator[](std::string_view key) const {
    static const JsonValue kNullValue;
    const JsonValue* v = Find(key);
    return v ? *v : kNullValue;
  }
  std::int64_t Int() const { return std::strtoll(number.c_str(), nullptr, 10); }
  // The string as bytes (lossless inverse of the output's escaping).
  std::string Bytes() const { return orn::text::WideToNarrow(text); }
};

inline JsonValue::JsonValue(const JsonValue&) = default;
inline JsonValue::JsonValue(JsonValue&&) noexcept = default;
inline JsonValue& JsonValue::operator=(const JsonValue&) = default;
inline JsonValue& JsonValue::operator=(JsonValue&&) noexcept = default;
inline JsonValue::~JsonValue() = default;

class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : m_text(text) {}

  // Parses the whole text as one value; false on any syntax error.
  bool Parse(JsonValue& out) {
    SkipSpace();
    if (!Value(out, 0)) return false;
    SkipSpace();
    return m_pos == m_text.size();
  }

 private:
  static constexpr int kMaxDepth = 64;

  void SkipSpace() {
    while (m_pos < m_text.size() && (m_text[m_pos] == ' ' || m_text[m_pos] == '\t' ||
                                     m_text[m_pos] == '\n' || m_text[m_pos] == '\r'))
      ++m_pos;
  }
  bool Eat(char c) {
    SkipSpace();
    if (m_pos < m_text.size() && m_text[m_pos] == c) {
      ++m_pos;
      return true;
    }
    return false;
  }
  bool Literal(std::string_view word) {
    if (m_text.substr(m_pos, word.size()) != word) return false;
    m_pos += word.size();
    return true;
  }

  bool Value(JsonValue& out, int depth) {
    if (depth > kMaxDepth || m_pos >= m_text.size()) return false;
    const char c = m_text[m_pos];
    if (c == '{') return Object(out, depth);
    if (c == '[') return Array(out, depth);
    if (c == '"') {
      out.kind = JsonValue::Kind::kString;
      return String(out.text);
    }
    if (c == 't' || c == 'f') {
      out.kind = JsonValue::Kind::kBool;
      out.boolean = c == 't';
      return Literal(c == 't' ? "true" : "false");
    }
    if (c == 'n') return Literal("null");
    return Number(out);
  }

  bool Number(JsonValue& out) {
    const std::size_t start = m_pos;
    if (m_pos < m_text.size() && m_text[m_pos] == '-') ++m_pos;
    const std::size_t digits = m_pos;
    while (m_pos < m_text.size() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9') ++m_pos;
    if (m_pos == digits || (m_text[digits] == '0' && m_pos - digits > 1)) return false;
    if (m_pos < m_text.size() &&
        (m_text[m_pos] == '.' || m_text[m_pos] == 'e' || m_text[m_pos] == 'E'))
      return false;  // the output has integers only
    out.kind = JsonValue::Kind::kNumber;
    out.number = std::string(m_text.substr(start, m_pos - start));
    return true;
  }

  bool Hex4(std::uint32_t& out) {
    if (m_pos + 4 > m_text.size()) return false;
    out = 0;
    for (int i = 0; i < 4; ++i) {
      const char h = m_text[m_pos++];
      out <<= 4;
      if (h >= '0' && h <= '9') {
        out |= static_cast<std::uint32_t>(h - '0');
      } else if (h >= 'a' && h <= 'f') {
        out |= static_cast<std::uint32_t>(h - 'a' + 10);
      } else if (h >= 'A' && h <= 'F') {
        out |= static_cast<std::uint32_t>(h - 'A' + 10);
      } else {
        return false;
      }
    }
    return true;
  }

  // Raw runs are checked to be valid UTF-8: NarrowToWide maps an invalid
  // byte to U+DC80..U+DCFF, which valid UTF-8 never yields.
  // Raw text must be valid UTF-8: a byte that is not decodes to a lone
  // U+DC80..U+DCFF. The same units as the low half of a pair are characters.
  bool FlushRaw(std::string& raw, std::u16string& out) {
    const std::u16string wide = orn::text::NarrowToWide(raw);
    for (std::size_t i = 0; i < wide.size(); ++i)
      if (wide[i] >= 0xDC80 && wide[i] <= 0xDCFF &&
          (i == 0 || wide[i - 1] < 0xD800 || wide[i - 1] > 0xDBFF))
        return false;
    out += wide;
    raw.clear();
    return true;
  }

  bool String(std::u16string& out) {
    ++m_pos;  // opening quote
    std::string raw;
    while (m_pos < m_text.size()) {
      const char c = m_text[m_pos++];
      if (c == '"') return FlushRaw(raw, out);
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        raw.push_back(c);
        continue;
      }
      if (!FlushRaw(raw, out) || m_pos >= m_text.size()) return false;
      const char e = m_text[m_pos++];
      std::uint32_t unit = 0;
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out.push_back(static_cast<char16_t>(e));
          break;
        case 'b':
          out.push_back(u'\b');
          break;
        case 'f':
          out.push_back(u'\f');
          break;
        case 'n':
          out.push_back(u'\n');
          break;
        case 'r':
          out.push_back(u'\r');
          break;
        case 't':
          out.push_back(u'\t');
          break;
        case 'u':
          if (!Hex4(unit)) return false;
          out.push_back(static_cast<char16_t>(unit));
          break;
        default:
          return false;
      }
    }
    return false;
  }

  bool Array(JsonValue& out, int depth) {
    ++m_pos;
    out.kind = JsonValue::Kind::kArray;
    if (Eat(']')) return true;
    do {
      SkipSpace();
      out.items.emplace_back();
      if (!Value(out.items.back(), depth + 1)) return false;
    } while (Eat(','));
    return Eat(']');
  }

  bool Object(JsonValue& out, int depth) {
    ++m_pos;
    out.kind = JsonValue::Kind::kObject;
    if (Eat('}')) return true;
    do {
      SkipSpace();
      if (m_pos >= m_text.size() || m_text[m_pos] != '"') return false;
      std::u16string key;
      if (!String(key) || !Eat(':')) return false;
      SkipSpace();
      out.members.emplace_back(orn::text::WideToNarrow(key), JsonValue{});
      if (!Value(out.members.back().second, depth + 1)) return false;
    } while (Eat(','));
    return Eat('}');
  }

  std::string_view m_text;
  std::size_t m_pos = 0;
};

inline bool ParseJson(std::string_view text, JsonValue& out) {
  out = JsonValue{};
  return JsonReader(text).Parse(out);
}

}  // namespace arvo::test
