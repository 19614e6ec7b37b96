#include "pax/enumerations.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

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

TEST(Enumerations, TheTaskTypeTableGivesTheTypeTexts) {
  EXPECT_EQ(pax::NameOf(pax::FimTaskTypeTable(), pax::task_type::kOnAccess), "OAFIM");
  EXPECT_EQ(pax::NameOf(pax::FimTaskTypeTable(), pax::task_type::kOnDemand), "ODFIM");
  EXPECT_EQ(pax::FimTaskTypeTable().count, 2u);
}

// The thirteen other tables, each with exactly its known rows, in order.
TEST(Enumerations, TheOtherVocabularyTablesHoldTheRowsThePartGives) {
  using Rows = std::vector<std::pair<int, std::string>>;
  const std::vector<Rows> expected = {
      {{0, "No"}, {1, "Yes"}},
      {{0, "Unknown"}, {1, "Sure"}, {2, "Warning"}, {3, "Suspicion"}},
      {{0, "Unknown"}, {1, "High"}, {2, "Medium"}, {3, "Low"}, {4, "Informational"}},
      {{0, "Quarantine"}, {1, "Backup"}, {2, "UserAdded"}, {3, "Untreated"}, {4, "Unknown"}},
      {{0, "Light"}, {1, "Medium"}, {2, "Deep"}, {3, "Recommended"}},
      {{0, "Daily"}, {1, "Weekly"}, {2, "Monthly"}, {3, "Never"}},
      {{0, "NormalExit"},
       {1, "Crash"},
       {2, "Freeze"},
       {3, "MemoryLimitExceeded"},
       {4, "GenericFailure"}},
      {{0, "IPv4"}, {1, "IPv6"}},
      {{0, "Disabled"}, {1, "DownloadOnly"}, {2, "DownloadAndInstall"}},
      {{0, "UnknownBus"}, {1, "USB"}, {2, "Firewire"}},
      {{0, "Stopped"}, {1, "Running"}, {2, "Malfunction"}},
      {{0, "DER"}, {1, "PEM"}},
      {{0, "JSON"}, {1, "CEF"}},
  };
  std::size_t count = 0;
  const pax::EnumTable* tables = pax::OtherVocabularyTables(count);
  ASSERT_EQ(count, expected.size());
  for (std::size_t t = 0; t < count; ++t) {
    Rows rows;
    for (std::size_t i = 0; i < tables[t].count; ++i)
      rows.emplace_back(tables[t].rows[i].value, tables[t].rows[i].name);
    EXPECT_EQ(rows, expected[t]) << tables[t].name;
    EXPECT_EQ(pax::FindTable(tables[t].name), &tables[t]);
  }
  // The danger table has six rows in the vocabulary; the sixth is not given.
  const pax::EnumTable* danger = pax::FindTable("DetectDanger");
  ASSERT_NE(danger, nullptr);
  EXPECT_FALSE(pax::NameOf(*danger, 5));
  EXPECT_EQ(pax::FindTable("TaskState"), &pax::TaskStateTable());
  EXPECT_EQ(pax::FindTable("NoSuchTable"), nullptr);
}

}  // namespace
