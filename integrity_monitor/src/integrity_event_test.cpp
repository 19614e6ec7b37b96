#include "integrity_event.h"

#include <gtest/gtest.h>

namespace pax::fim {
namespace {

int FixedClock(clockid_t clock, timespec* now) {
  EXPECT_EQ(clock, CLOCK_REALTIME);
  now->tv_sec = 1700000000;
  now->tv_nsec = 999999999;
  return 0;
}

int BrokenClock(clockid_t, timespec*) { return -1; }

TEST(IntegrityEventTest, HeaderHasIdZeroWordTwoNoTextAndTheClockSeconds) {
  const ProductEvent e = MakeIntegrityEvent(69, 4, &FixedClock);
  EXPECT_EQ(e.id, 0u);
  EXPECT_EQ(e.eventType, 69u);
  EXPECT_EQ(e.severity, 4u);
  EXPECT_EQ(e.headerWord, 2u);
  EXPECT_FALSE(e.headerText.has_value());
  EXPECT_EQ(e.time, 1700000000);
  EXPECT_TRUE(e.fields.empty());
}

TEST(IntegrityEventTest, UnreadableClockGivesMinusOne) {
  EXPECT_EQ(MakeIntegrityEvent(67, 0, &BrokenClock).time, -1);
  EXPECT_GT(EventTime(), 0);
}

}  // namespace
}  // namespace pax::fim
