#include "host/services/glob.h"

#include <gtest/gtest.h>

#include <string>

namespace arvo::host {
namespace {

struct Case {
  const char* pattern;
  std::string text;
  bool pathname;
  bool expected;
};

// Cases cover each special character and each fast-path shape, so that a
// shortcut disagreeing with the general matcher shows up here.
const Case kCases[] = {
    {"abc", "abc", false, true},
    {"abc", "abcd", false, false},
    {"", "", false, true},
    {"*", "", false, true},
    {"*", "a/b", false, true},
    {"*", "a/b", true, false},
    {"*.log", "x.log", false, true},
    {"*.log", "x.log.1", false, false},
    {"*.log", "dir/x.log", true, false},
    {"*.log", "dir/x.log", false, true},
    {"tmp*", "tmpfile", false, true},
    {"a*b*c", "aXXbYYbc", false, true},
    {"a*b*c", "aXXbYYbd", false, false},
    {"?", "a", false, true},
    {"?", "", false, false},
    {"?", "\xc3\xa9", false, true},    // one UTF-8 character
    {"??", "\xc3\xa9", false, false},  // not two
    {"?", "\xff", false, true},        // a stray byte is one character
    {"a?c", "a/c", true, false},
    {"[abc]", "b", false, true},
    {"[!abc]", "b", false, false},
    {"[^abc]", "d", false, true},
    {"[a-c]x", "bx", false, true},
    {"[]]", "]", false, true},
    {"[!]]", "a", false, true},
    {"[[:digit:]]*", "7up", false, true},
    {"[[:digit:]]*", "up7", false, false},
    {"[[:nosuch:]]", "a", false, false},
    {"[\xc3\xa0-\xc3\xbf]", "\xc3\xa9", false, true},  // range of code points
    {"[ab", "[ab", false, true},                       // unterminated: literal
    {"\\*", "*", false, true},
    {"\\*", "a", false, false},
    {"a\\", "a\\", false, true},
    {"/a/**/b", "/a/b", true, true},
    {"/a/**/b", "/a/x/y/b", true, true},
    {"/a/**/b", "/a/x/y/c", true, false},
    {"/a/**", "/a/x/y", true, true},
    {"/a/**", "/a", true, false},
    {"**/core", "x/y/core", true, true},
    {"**", "x/y", true, true},
    {"/a/x**", "/a/xyz", true, true},  // "**" inside a component is one '*'
    {"/a/x**", "/a/x/y", true, false},
    {"/etc/*/conf", "/etc/ssh/conf", true, true},
    {"/etc/*/conf", "/etc/a/b/conf", true, false},
    {"/etc/*/conf", "/etc/a/b/conf", false, true},
    {"*\xa9", "\xc3\xa9", false, false},  // a byte inside a character is not one
};

TEST(GlobTest, MatchesTable) {
  for (const Case& c : kCases) {
    EXPECT_EQ(Glob(c.pattern, c.pathname).Match(c.text), c.expected)
        << "pattern '" << c.pattern << "' text '" << c.text << "' pathname " << c.pathname;
  }
}

TEST(GlobTest, ManyStarsDoNotBacktrackExponentially) {
  const std::string text(2000, 'a');
  EXPECT_FALSE(Glob("*a*a*a*a*a*a*a*a*b", false).Match(text));
  std::string deep;
  for (int i = 0; i < 30; ++i) deep += "/a";
  EXPECT_FALSE(Glob("/**/**/**/b", true).Match(deep + "/c"));
}

}  // namespace
}  // namespace arvo::host
