#include "pax_utils/date_to_string_and_viceversa.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace pax::utils {
namespace {

class DateToStringTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
};

TEST_F(DateToStringTest, AppendsExactlyNineDigitsOfNanoseconds) {
  std::string out = "overwritten";
  date_to_string(out, timespec{0, 0}, kDateFormat);
  EXPECT_EQ(out, "1970-01-01 00:00:00.000000000");
  date_to_string(out, timespec{86400 + 3661, 42}, kDateFormat);
  EXPECT_EQ(out, "1970-01-02 01:01:01.000000042");
  date_to_string(out, timespec{0, 999999999}, "%H");
  EXPECT_EQ(out, "00.999999999");
}

TEST_F(DateToStringTest, FormatterLimits) {
  std::tm tm{};
  EXPECT_EQ(FormatTime(tm, ""), "");
  EXPECT_EQ(FormatTime(tm, std::string(2047, 'a')), std::string(2047, 'a'));
  EXPECT_THROW(FormatTime(tm, std::string(2048, 'a')), std::out_of_range);
  // Fits the format limit but not the 4096-byte output.
  std::string wide;
  for (int i = 0; i < 200; ++i) wide += "%c";
  EXPECT_THROW(FormatTime(tm, wide), std::out_of_range);
  try {
    (void)FormatTime(tm, std::string(3000, 'a'));
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "Format specification is too long");
  }
}

}  // namespace
}  // namespace pax::utils
