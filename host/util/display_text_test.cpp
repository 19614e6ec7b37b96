#include "host/util/display_text.h"

#include <gtest/gtest.h>

namespace arvo::host {
namespace {

TEST(DisplayTextTest, ControlsInvalidBytesAndBackslashesAreEscaped) {
  std::string out;
  AppendDisplayBytes(out, "a\nb\tc\x7f\xff\\ \xc3\xa9");
  EXPECT_EQ(out, "a\\x0ab\\x09c\\x7f\\xff\\\\ \xc3\xa9");
  out.clear();
  AppendDisplayBytes(out, "odfim\tPath: /x\r", true);
  EXPECT_EQ(out, "odfim\tPath: /x\\x0d");
  EXPECT_TRUE(IsDisplaySafe("odfim\tPath: /etc", true));
  EXPECT_FALSE(IsDisplaySafe("odfim\tPath: /etc"));
  EXPECT_FALSE(IsDisplaySafe("caf\xc3\xa9", true));  // the slow path keeps valid UTF-8
}

}  // namespace
}  // namespace arvo::host
