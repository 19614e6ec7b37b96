#include "host/output/journal_output.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "host/output/host_events.h"
#include "orn/text.h"
#include "pax/enumerations.h"
#include "tests/journal_capture.h"

namespace arvo::host {
namespace {

using Fields = test::JournalFields;

const std::string kOddPath = std::string("/srv/a\xff\xfe b\nc");

pax::ProductEvent MovedEvent() {
  pax::ProductEvent e;
  e.id = 7;
  e.eventType = pax::event_type::kSystemIntegrityIssue;
  e.severity = pax::severity::kCritical;
  e.time = 1732168260;
  e.Add(pax::field::kFileModificationType, pax::FieldValue::U32(pax::modification::kObjectMoved));
  e.Add(pax::field::kPath, pax::FieldValue::Text8(kOddPath));
  e.Add(pax::field::kFileObjectType, pax::FieldValue::U32(pax::object_type::kFile));
  e.Add(pax::field::kOriginalPath, pax::FieldValue::Text8("/srv/old"));
  e.Add(pax::field::kTaskId, pax::FieldValue::U64(42));
  e.Add(pax::field::kTaskName, pax::FieldValue::Text16(orn::text::NarrowToWide("Nightly scan")));
  e.Add(pax::field::kSha256Hash, pax::FieldValue::Text16(u"ab"));
  e.Add(2, pax::FieldValue::U32(1));  // "_unused2": not a usable journal name
  e.Add(3000, pax::FieldValue::U32(5));
  return e;
}

Fields ToMap(const std::vector<JournalField>& entry) { return Fields(entry.begin(), entry.end()); }

void ExpectMovedEventFields(const Fields& f) {
  const std::pair<const char*, std::string> expected[] = {
      {"PRIORITY", "2"},
      {"SYSLOG_IDENTIFIER", "arvo-fim"},
      {"ARVO_FIM_TYPE", "SystemIntegrityIssue"},
      {"ARVO_FIM_TYPE_ID", "67"},
      {"ARVO_FIM_SEVERITY", "Critical"},
      {"ARVO_FIM_EVENT_ID", "7"},
      {"ARVO_FIM_TIME", "1732168260"},
      {"ARVO_FIM_MODIFICATION", "ObjectMoved"},
      {"ARVO_FIM_OBJECT_TYPE", "File"},
      {"ARVO_FIM_PATH", kOddPath},  // bytes, newline and all
      {"ARVO_FIM_ORIGINAL_PATH", "/srv/old"},
      {"ARVO_FIM_TASK_ID", "42"},
      {"ARVO_FIM_TASK_NAME", "Nightly scan"},
      {"ARVO_FIM_SHA256_HASH", "ab"},
      {"ARVO_FIM_FIELD_2", "1"},
      {"ARVO_FIM_FIELD_3000", "5"},
  };
  for (const auto& [key, value] : expected) EXPECT_EQ(test::JournalValue(f, key), value) << key;
  const std::string message = test::JournalValue(f, "MESSAGE");
  EXPECT_EQ(
      message.rfind(R"(SystemIntegrityIssue Critical "/srv/a\xff\xfe b\x0ac" ObjectMoved)", 0), 0u)
      << message;
  EXPECT_EQ(message.find('\n'), std::string::npos);
}

TEST(JournalEntryTest, CarriesHeaderAndEveryFieldByName) {
  ExpectMovedEventFields(ToMap(JournalEntry(MovedEvent())));
}

TEST(JournalEntryTest, CoverageEventsAndPriorities) {
  const Fields lost =
      ToMap(JournalEntry(MakeCoverageEvent("/srv", CoverageReason::kQueueOverflow, "", 5)));
  EXPECT_EQ(lost.find("ARVO_FIM_TYPE")->second, "CoverageLost");
  EXPECT_EQ(lost.find("ARVO_FIM_AREA")->second, "/srv");
  EXPECT_EQ(lost.find("ARVO_FIM_REASON")->second, "QueueOverflow");
  EXPECT_EQ(lost.find("ARVO_FIM_PATH")->second, "/srv");
  EXPECT_EQ(lost.find("PRIORITY")->second, "3");
  const Fields back =
      ToMap(JournalEntry(MakeCoverageEvent("/srv", CoverageReason::kRootBack, "/srv", 5)));
  EXPECT_EQ(back.find("ARVO_FIM_TYPE")->second, "CoverageRestored");
  EXPECT_EQ(back.find("PRIORITY")->second, "6");
  EXPECT_EQ(JournalPriority(pax::severity::kWarning), 4);
  EXPECT_EQ(JournalPriority(99), 5);
}

ProcessOrigin Writer() {
  ProcessOrigin origin;
  origin.pid = 4242;
  origin.parentPid = 1;
  origin.uid = 1000;
  origin.executable = "/usr/bin/ed\xff";
  origin.command = "ed";
  return origin;
}

TEST(JournalEntryTest, NamesTheProcessWhatIsKnownOfIt) {
  EXPECT_EQ(ToMap(JournalEntry(MovedEvent())).count("ARVO_FIM_PROCESS_PID"), 0u);
  const ProcessOrigin writer = Writer();
  const Fields live = ToMap(JournalEntry(MovedEvent(), &writer));
  const std::pair<const char*, std::string> expected[] = {
      {"ARVO_FIM_PROCESS_PID", "4242"}, {"ARVO_FIM_PROCESS_PPID", "1"},
      {"ARVO_FIM_PROCESS_UID", "1000"}, {"ARVO_FIM_PROCESS_EXE", "/usr/bin/ed\xff"},
      {"ARVO_FIM_PROCESS_COMM", "ed"},
  };
  for (const auto& [key, value] : expected) EXPECT_EQ(test::JournalValue(live, key), value) << key;
  EXPECT_EQ(live.count("ARVO_FIM_PROCESS_LOGINUID"), 0u);  // unset: left out
  EXPECT_EQ(live.count("ARVO_FIM_PROCESS_EXITED"), 0u);

  ProcessOrigin gone;
  gone.pid = 77;
  gone.exited = true;
  const Fields exited = ToMap(JournalEntry(MovedEvent(), &gone));
  EXPECT_EQ(test::JournalValue(exited, "ARVO_FIM_PROCESS_PID"), "77");
  EXPECT_EQ(test::JournalValue(exited, "ARVO_FIM_PROCESS_EXITED"), "1");
  EXPECT_EQ(exited.count("ARVO_FIM_PROCESS_PPID"), 0u);
}

// The output reads the origin of the delivering thread, as the other outputs do.
TEST(JournalOutputTest, SendsNativeEntriesToTheJournalSocket) {
  const test::JournalCapture capture = test::CaptureJournal([] {
    const auto output = orn::MakeSimple<JournalOutput>();
    if (ORN_FAILED(output->Publish(MovedEvent()))) return false;
    const ProcessOrigin origin = Writer();
    const ScopedProcessOrigin current(&origin);
    return ORN_SUCCEEDED(output->Publish(MovedEvent()));
  });
  if (capture.skipped) GTEST_SKIP() << "needs a mount namespace (root): " << capture.problem;
  ASSERT_TRUE(capture.problem.empty()) << capture.problem;
  ASSERT_EQ(capture.entries.size(), 2u);
  ExpectMovedEventFields(capture.entries[0]);
  EXPECT_EQ(capture.entries[0].count("ARVO_FIM_PROCESS_PID"), 0u);
  ExpectMovedEventFields(capture.entries[1]);
  EXPECT_EQ(test::JournalValue(capture.entries[1], "ARVO_FIM_PROCESS_PID"), "4242");
  EXPECT_EQ(test::JournalValue(capture.entries[1], "ARVO_FIM_PROCESS_EXE"), "/usr/bin/ed\xff");
}

}  // namespace
}  // namespace arvo::host
