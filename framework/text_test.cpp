#include "orn/text.h"

#include <gtest/gtest.h>

namespace {

using orn::text::NarrowToWide;
using orn::text::WideToNarrow;

TEST(Text, ValidUtf8DecodesToUtf16) {
  EXPECT_EQ(NarrowToWide("abc"), u"abc");
  EXPECT_EQ(NarrowToWide("\xc3\xa9t\xc3\xa9"), u"\u00e9t\u00e9");
  EXPECT_EQ(NarrowToWide("\xf0\x9f\x98\x80"), u"\U0001F600");
  EXPECT_EQ(WideToNarrow(u"\U0001F600"), "\xf0\x9f\x98\x80");
}

TEST(Text, EveryByteSequenceRoundTrips) {
  const std::string samples[] = {
      std::string("\xff\xfe/etc", 6),           // stray bytes
      std::string("a\xc3", 2),                  // truncated sequence
      std::string("\xed\xa0\x80", 3),           // encoded surrogate
      std::string("\xc0\xaf", 2),               // overlong
      std::string("\xf4\x90\x80\x80", 4),       // above U+10FFFF
      std::string("\xed\xb2\x80x", 4),          // encoded escape surrogate
      std::string("new\nline 'quote' \"dq\""),  // plain but hostile
  };
  for (const std::string& s : samples) EXPECT_EQ(WideToNarrow(NarrowToWide(s)), s);
  std::string all;
  for (int b = 1; b < 256; ++b) all.push_back(static_cast<char>(b));
  EXPECT_EQ(WideToNarrow(NarrowToWide(all)), all);
}

TEST(Text, InvalidBytesBecomeEscapeSurrogates) {
  EXPECT_EQ(NarrowToWide(std::string("\xff", 1)), std::u16string(1, char16_t(0xDCFF)));
}

}  // namespace
