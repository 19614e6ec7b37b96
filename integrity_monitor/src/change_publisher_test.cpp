#include "change_publisher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "snapshot_test_support.h"

namespace pax::fim::test {
namespace {

using ChangePublisherTest = EngineTest;

std::vector<std::uint32_t> Ids(const ProductEvent& e) {
  std::vector<std::uint32_t> ids;
  for (const EventField& f : e.fields) ids.push_back(f.fieldId);
  return ids;
}

TEST_F(ChangePublisherTest, RunEventsCarryTheirTypeSeverityAndFields) {
  taskInfo.displayName = u"Nightly check";
  EXPECT_EQ(publisher.PublishBaselineBuilt("/srv", 3), 0);
  EXPECT_EQ(publisher.PublishSystemIntegrityOk(), 0);
  EXPECT_EQ(publisher.PublishIntegrityMonitorError("/srv", orn::errors::kCancelled), 0);
  const auto events = this->events->Events();
  ASSERT_EQ(events.size(), 3u);

  EXPECT_EQ(events[0].eventType, 69u);
  EXPECT_EQ(events[0].severity, 4u);
  EXPECT_EQ(Ids(events[0]), (std::vector<std::uint32_t>{66, 5, 8, 7, 69, 12}));
  EXPECT_EQ(events[0].fields[0].value.AsText8(), "/srv");
  EXPECT_EQ(events[0].fields[1].value.AsText16(), u"Nightly check");
  EXPECT_EQ(events[0].fields[2].value.AsU64(), 7u);
  EXPECT_EQ(events[0].fields[3].value.AsU64(), 99u);
  EXPECT_EQ(events[0].fields[4].value.AsText16(), u"rule-1");
  EXPECT_EQ(events[0].fields[5].value.AsText16(), u"ODFIM");

  EXPECT_EQ(events[1].eventType, 68u);
  EXPECT_EQ(events[1].severity, 4u);
  EXPECT_EQ(Ids(events[1]), (std::vector<std::uint32_t>{5, 8, 7, 69, 12}));

  EXPECT_EQ(events[2].eventType, 72u);
  EXPECT_EQ(events[2].severity, 5u);
  EXPECT_EQ(Ids(events[2]), (std::vector<std::uint32_t>{66, 68, 5, 8, 7, 69, 12}));
  EXPECT_EQ(events[2].fields[1].value.AsText16(), u"0x80000051 (Operation cancelled)");
}

}  // namespace
}  // namespace pax::fim::test
