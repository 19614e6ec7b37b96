#include "pax/enumerations.h"

#include <gtest/gtest.h>

namespace {

TEST(Enumerations, LookupsBothWays) {
  EXPECT_EQ(pax::NameOf(pax::ProductEventTypeTable(), 67), "SystemIntegrityIssue");
  EXPECT_EQ(pax::ValueOf(pax::ProductEventTypeTable(), "SystemIntegrityIssue"), 67);
  EXPECT_EQ(pax::ValueOf(pax::ProductEventTypeTable(), "IntegrityCheckOk"), 255);
  EXPECT_EQ(pax::NameOf(pax::EventFieldNameTable(), 62), "_unused62");
  EXPECT_EQ(pax::NameOf(pax::EventFieldNameTable(), 66), "Path");
  EXPECT_EQ(pax::NameOf(pax::TaskStateTable(), 6), "Stopped");
  EXPECT_EQ(pax::NameOf(pax::EventSeverityTable(), 1), "_deprecatedHigh");
  EXPECT_EQ(pax::NameOf(pax::FileModificationTypeTable(), 13), "ObjectRenamed");
  EXPECT_EQ(pax::NameOf(pax::FileObjectTypeTable(), 5), "SymbolicLink");
}

TEST(Enumerations, ValuesAndNamesWithoutARowAreAbsent) {
  EXPECT_FALSE(pax::NameOf(pax::EventFieldNameTable(), 190));
  EXPECT_FALSE(pax::NameOf(pax::EventFieldNameTable(), 11));  // not listed: no invented name
  EXPECT_FALSE(pax::NameOf(pax::ProductEventTypeTable(), 268));
  EXPECT_FALSE(pax::ValueOf(pax::TaskStateTable(), "stopped"));  // exact, case-sensitive
  EXPECT_FALSE(pax::ValueOf(pax::FileModificationTypeTable(), ""));
}

TEST(Enumerations, ConstantsAgreeWithTheTables) {
  EXPECT_EQ(pax::NameOf(pax::ProductEventTypeTable(), pax::event_type::kBaselineBuilt),
            "BaselineBuilt");
  EXPECT_EQ(pax::NameOf(pax::EventFieldNameTable(), pax::field::kFimRuleId), "FimRuleId");
  EXPECT_EQ(pax::NameOf(pax::FileModificationTypeTable(), pax::modification::kObjectMoved),
            "ObjectMoved");
  EXPECT_EQ(pax::NameOf(pax::EventSeverityTable(), pax::severity::kInformational), "Informational");
  EXPECT_EQ(pax::FileModificationTypeTable().count, 15u);
  EXPECT_EQ(pax::EventSeverityTable().count, 6u);
}

}  // namespace
