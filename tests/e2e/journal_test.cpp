// arvo-fim --journal, seen from a journal socket of the test's own (in a
// mount namespace of its own): one entry per event, fields by name, paths
// byte for byte.
#include <cstdlib>

#include "tests/e2e/e2e_util.h"
#include "tests/journal_capture.h"

namespace arvo::e2e {
namespace {

TEST(JournalTest, ScanEventsArriveAsJournalEntriesWithTheirFields) {
  TempTree tree;
  const std::string root = tree / "root";
  const std::string odd = root + "/odd\xff name";
  ASSERT_EQ(::mkdir(root.c_str(), 0755), 0);
  const std::string scan = "ARVO_FIM_DB='" + tree / "db/fim.db" + "' ARVO_FIM_STORAGE='" +
                           tree / "st/storage" + "' " + ARVO_FIM_BIN +
                           " scan --journal --format json '" + root + "' >/dev/null 2>&1";
  const test::JournalCapture capture = test::CaptureJournal([&] {
    if (std::system(scan.c_str()) != 0) return false;  // the baseline
    const int fd = ::open(odd.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    ::close(fd);
    const int status = std::system(scan.c_str());
    return WIFEXITED(status) && WEXITSTATUS(status) == 1;  // a change found
  });
  if (capture.skipped) GTEST_SKIP() << "needs a mount namespace (root): " << capture.problem;
  ASSERT_TRUE(capture.problem.empty()) << capture.problem;

  const test::JournalFields* built = nullptr;
  const test::JournalFields* created = nullptr;
  for (const auto& entry : capture.entries) {
    EXPECT_EQ(test::JournalValue(entry, "SYSLOG_IDENTIFIER"), "arvo-fim");
    const std::string type = test::JournalValue(entry, "ARVO_FIM_TYPE");
    if (type == "BaselineBuilt") built = &entry;
    if (type == "SystemIntegrityIssue" && test::JournalValue(entry, "ARVO_FIM_PATH") == odd)
      created = &entry;
  }
  ASSERT_TRUE(built);
  EXPECT_EQ(test::JournalValue(*built, "PRIORITY"), "6");
  EXPECT_EQ(test::JournalValue(*built, "ARVO_FIM_PATH"), root);
  ASSERT_TRUE(created);
  EXPECT_EQ(test::JournalValue(*created, "PRIORITY"), "2");
  EXPECT_EQ(test::JournalValue(*created, "ARVO_FIM_MODIFICATION"), "ObjectCreated");
  EXPECT_EQ(test::JournalValue(*created, "ARVO_FIM_TASK_TYPE"), "ODFIM");
  EXPECT_EQ(test::JournalValue(*created, "MESSAGE").rfind("SystemIntegrityIssue Critical ", 0), 0u);
}

}  // namespace
}  // namespace arvo::e2e
