// Shell glob matching over byte strings, without allocation per match.
//
// Syntax: '*' matches any sequence, '?' one character, "[...]" one character
// of a set ("[!...]" or "[^...]" negates; ranges "a-z"; classes such as
// "[:digit:]"; a ']' first in the set is literal), '\' makes the next
// character literal. An unterminated '[' is a literal '['. Matching is
// case-sensitive and gives a leading '.' no special treatment.
//
// Characters are decoded as UTF-8, so '?' and sets consume one character of
// a UTF-8 name; a byte that is not part of valid UTF-8 is one character of
// its own (the mapping of orn/text.h), so any byte string can be matched.
//
// In pathname mode '*', '?' and sets never match '/', and a pattern
// component that is exactly "**" matches zero or more whole components:
// "/a/**/b" matches "/a/b" and "/a/x/y/b"; "/a/**" matches everything below
// "/a" but not "/a" itself.
//
// Immutable after construction; Match is thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace arvo::host {

class Glob {
 public:
  Glob(std::string_view pattern, bool pathname);

  bool Match(std::string_view text) const;

  const std::string& Pattern() const { return m_pattern; }
  // True when the pattern has no special characters at all.
  bool IsLiteral() const { return m_shape == Shape::kLiteral; }

 private:
  // Common pattern shapes are answered without the general matcher.
  enum class Shape { kLiteral, kAnything, kSuffix, kPrefix, kGeneral };

  std::string m_pattern;
  bool m_pathname;
  Shape m_shape = Shape::kGeneral;
  std::string m_fixed;  // the literal part of kLiteral, kSuffix and kPrefix
  // kGeneral: literal text every match must begin and end with, checked
  // before the general matcher runs.
  std::string m_head;
  std::string m_tail;
};

}  // namespace arvo::host
