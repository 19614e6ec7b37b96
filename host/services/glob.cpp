#include "host/services/glob.h"

#include <cstdint>

#include "orn/text.h"

namespace arvo::host {
namespace {

constexpr std::size_t npos = std::string_view::npos;

using Char = orn::text::DecodedChar;

inline Char DecodeAt(std::string_view s, std::size_t i) { return orn::text::DecodeUtf8At(s, i); }

bool InClass(std::string_view name, std::uint32_t cp) {
  if (cp >= 0x80) return false;
  const auto c = static_cast<char>(cp);
  const bool upper = c >= 'A' && c <= 'Z';
  const bool lower = c >= 'a' && c <= 'z';
  const bool digit = c >= '0' && c <= '9';
  const bool print = cp >= 0x20 && cp < 0x7F;
  if (name == "alpha") return upper || lower;
  if (name == "digit") return digit;
  if (name == "alnum") return upper || lower || digit;
  if (name == "upper") return upper;
  if (name == "lower") return lower;
  if (name == "xdigit") return digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  if (name == "space") return c == ' ' || (c >= '\t' && c <= '\r');
  if (name == "blank") return c == ' ' || c == '\t';
  if (name == "punct") return print && c != ' ' && !upper && !lower && !digit;
  if (name == "cntrl") return cp < 0x20 || cp == 0x7F;
  if (name == "graph") return print && c != ' ';
  if (name == "print") return print;
  return false;  // an unknown class matches nothing
}

// Matches `cp` against the set starting at pat[p] == '['. Returns the index
// after the closing ']' and stores the verdict, or npos when the set is not
// terminated (the '[' is then an ordinary character).
std::size_t MatchSet(std::string_view pat, std::size_t p, std::uint32_t cp, bool& matched) {
  std::size_t j = p + 1;
  bool negate = false;
  if (j < pat.size() && (pat[j] == '!' || pat[j] == '^')) {
    negate = true;
    ++j;
  }
  bool hit = false;
  bool first = true;
  while (j < pat.size()) {
    if (pat[j] == ']' && !first) {
      matched = hit != negate;
      return j + 1;
    }
    first = false;
    if (pat.compare(j, 2, "[:") == 0) {
      const std::size_t close = pat.find(":]", j + 2);
      if (close != npos) {
        hit = hit || InClass(pat.substr(j + 2, close - j - 2), cp);
        j = close + 2;
        continue;
      }
    }
    if (pat[j] == '\\' && j + 1 < pat.size()) ++j;
    const Char lo = DecodeAt(pat, j);
    j += lo.len;
    std::uint32_t hi = lo.cp;
    if (j + 1 < pat.size() && pat[j] == '-' && pat[j + 1] != ']') {
      ++j;
      if (pat[j] == '\\' && j + 1 < pat.size()) ++j;
      const Char h = DecodeAt(pat, j);
      j += h.len;
      hi = h.cp;
    }
    if (cp >= lo.cp && cp <= hi) hit = true;
  }
  return npos;
}

// "**" forming a whole component of a pathname pattern at pat[p].
bool DoubleStarAt(std::string_view pat, std::size_t p) {
  return pat.compare(p, 2, "**") == 0 && (p == 0 || pat[p - 1] == '/') &&
         (p + 2 == pat.size() || pat[p + 2] == '/');
}

bool MatchFrom(std::string_view pat, std::size_t p, std::string_view text, std::size_t t,
               bool pathname) {
  // The classic single-backtrack wildcard match: on a mismatch the last '*'
  // takes one more character. In pathname mode a '*' cannot pass a '/', so a
  // matched '/' forgets it; that also makes "**" (always right after a '/')
  // safe to answer by recursion alone.
  std::size_t starP = npos;
  std::size_t starT = 0;
  while (true) {
    if (p < pat.size()) {
      if (pathname && DoubleStarAt(pat, p)) {
        if (p + 2 == pat.size()) return true;
        for (std::size_t u = t;; ++u) {
          if (MatchFrom(pat, p + 3, text, u, pathname)) return true;
          u = text.find('/', u);
          if (u == npos) return false;
        }
      }
      const char pc = pat[p];
      if (pc == '*') {
        while (p < pat.size() && pat[p] == '*') ++p;
        starP = p;
        starT = t;
        continue;
      }
      if (t < text.size()) {
        const bool slash = text[t] == '/';
        if (pc == '?' && !(pathname && slash)) {
          t += DecodeAt(text, t).len;
          ++p;
          continue;
        }
        if (pc == '[') {
          const Char c = DecodeAt(text, t);
          bool hit = false;
          const std::size_t next = MatchSet(pat, p, c.cp, hit);
          if (next != npos) {
            if (hit && !(pathname && slash)) {
              t += c.len;
              p = next;
              continue;
            }
          } else if (text[t] == '[') {
            ++t;
            ++p;
            continue;
          }
        } else if (pc != '?') {
          const std::size_t lit = (pc == '\\' && p + 1 < pat.size()) ? p + 1 : p;
          if (pat[lit] == text[t]) {
            if (pathname && slash) starP = npos;
            t += 1;
            p = lit + 1;
            continue;
          }
        }
      }
    } else if (t == text.size()) {
      return true;
    }
    if (starP == npos || starT >= text.size() || (pathname && text[starT] == '/')) return false;
    starT += DecodeAt(text, starT).len;
    t = starT;
    p = starP;
  }
}

bool HasSpecial(std::string_view s) { return s.find_first_of("*?[\\") != npos; }

// ends_with that settles most mismatches on the last byte, without a call.
bool EndsWith(std::string_view text, std::string_view tail) {
  return tail.empty() ||
         (text.size() >= tail.size() && text.back() == tail.back() && text.ends_with(tail));
}

}  // namespace

Glob::Glob(std::string_view pattern, bool pathname) : m_pattern(pattern), m_pathname(pathname) {
  const std::string_view p = m_pattern;
  if (!HasSpecial(p)) {
    m_shape = Shape::kLiteral;
    m_fixed = p;
  } else if (p.find_first_not_of('*') == npos && !pathname) {
    m_shape = Shape::kAnything;
  } else if (p.size() > 1 && p[0] == '*' && !HasSpecial(p.substr(1)) &&
             static_cast<unsigned char>(p[1]) < 0x80 && !(pathname && p.find('/') != npos)) {
    // An ASCII first byte keeps the split on a character boundary, as the
    // general matcher's '*' (which takes whole characters) would.
    m_shape = Shape::kSuffix;
    m_fixed = p.substr(1);
  } else if (p.size() > 1 && p.back() == '*' && !HasSpecial(p.substr(0, p.size() - 1)) &&
             !pathname) {
    m_shape = Shape::kPrefix;
    m_fixed = p.substr(0, p.size() - 1);
  } else {
    m_head = p.substr(0, p.find_first_of("*?[\\"));
    const std::size_t last = p.find_last_of("*?[]\\");
    m_tail = p.substr(last + 1);
  }
}

bool Glob::Match(std::string_view text) const {
  switch (m_shape) {
    case Shape::kLiteral:
      return text == m_fixed;
    case Shape::kAnything:
      return true;
    case Shape::kSuffix:
      return EndsWith(text, m_fixed) &&
             !(m_pathname && text.substr(0, text.size() - m_fixed.size()).find('/') != npos);
    case Shape::kPrefix:
      return text.starts_with(m_fixed);
    case Shape::kGeneral:
      if (!text.starts_with(m_head) || !EndsWith(text, m_tail)) return false;
      break;
  }
  return MatchFrom(m_pattern, 0, text, 0, m_pathname);
}

}  // namespace arvo::host
