#include "host/services/tracer.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "framework/trace.h"
#include "host/util/test_temp_dir.h"

namespace arvo::host {
namespace {

class TracerTest : public ::testing::Test {
 protected:
  orn::RefPtr<Tracer> Make(std::uint32_t maxLevel) {
    orn::RefPtr<Tracer> tracer;
    std::string error;
    EXPECT_EQ(CreateTracer(maxLevel, m_file, tracer, error), orn::errors::kOk) << error;
    return tracer;
  }
  std::vector<std::string> Lines() const {
    std::ifstream in(m_file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  arvo::test::TempDir m_dir;
  std::string m_file = m_dir / "trace.log";
};

// "<date>T<time>.<micros>Z <level> <tid> <text>"
const std::regex kLine(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z (\d+) \d+ (.*))");

TEST_F(TracerTest, RefusesLevelsAboveItsMaximumWithoutLendingABuffer) {
  auto tracer = Make(orn::kTraceLevelWarning);
  orn::TraceRecord record;
  EXPECT_NE(tracer->OpenRecord(orn::kTraceLevelDetail, &record, 512), orn::errors::kOk);
  EXPECT_EQ(record.buffer, nullptr);
  for (std::uint32_t level : {orn::kTraceLevelError, orn::kTraceLevelWarning}) {
    ASSERT_EQ(tracer->OpenRecord(level, &record, 512), orn::errors::kOk);
    ASSERT_NE(record.buffer, nullptr);
    EXPECT_EQ(record.capacity, 512u);
    EXPECT_EQ(record.tracer, tracer.Get());
    EXPECT_EQ(tracer->CommitRecord(record.buffer, 0), orn::errors::kOk);
  }
  EXPECT_EQ(Lines().size(), 2u);

  auto off = Make(0);
  EXPECT_NE(off->OpenRecord(orn::kTraceLevelError, &record, 512), orn::errors::kOk);
}

TEST_F(TracerTest, GrowKeepsTheComposedTextAndCommitWritesOneLine) {
  auto tracer = Make(orn::kTraceLevelDetail);
  orn::TraceRecord record;
  ASSERT_EQ(tracer->OpenRecord(orn::kTraceLevelWarning, &record, 4), orn::errors::kOk);
  std::memcpy(record.buffer, "abcd", 4);
  record.length = 4;
  ASSERT_EQ(tracer->OpenRecord(orn::kTraceGrowMarker, &record, 4096), orn::errors::kOk);
  EXPECT_EQ(record.capacity, 4096u);
  std::memset(record.buffer + 4, 'e', 4092);
  ASSERT_EQ(tracer->CommitRecord(record.buffer, 4096), orn::errors::kOk);

  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 1u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, kLine)) << lines[0];
  EXPECT_EQ(m[1], "500");
  EXPECT_EQ(m[2], "abcd" + std::string(4092, 'e'));
}

TEST_F(TracerTest, FrameworkLinesLongerThanTheFirstBufferArriveWhole) {
  auto tracer = Make(orn::kTraceLevelError);
  const std::string text(3000, 'x');
  ORN_TRACE(tracer.Get(), orn::kTraceLevelError) << "head " << text;
  ORN_TRACE(tracer.Get(), orn::kTraceLevelDetail) << "filtered";
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 1u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, kLine));
  EXPECT_EQ(m[2], "head " + text);
}

TEST_F(TracerTest, LinesFromManyThreadsNeverInterleave) {
  auto tracer = Make(orn::kTraceLevelDetail);
  constexpr int kThreads = 4, kLinesEach = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLinesEach; ++i)
        ORN_TRACE(tracer.Get(), orn::kTraceLevelDetail)
            << "thread " << t << " line " << i << ' ' << std::string(700, char('a' + t));
    });
  }
  for (auto& th : threads) th.join();
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLinesEach));
  const std::regex body(R"(thread (\d) line \d+ ([a-d])\2{699})");
  for (const std::string& line : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, kLine)) << line;
    const std::string text = m[2];
    ASSERT_TRUE(std::regex_match(text, body)) << text.substr(0, 40);
  }
}

// A path carrying a newline, an escape sequence or raw bytes must not forge
// a line of its own; the tab after a module's prefix stays.
TEST_F(TracerTest, ControlAndInvalidBytesAreEscapedSoOneRecordIsOneLine) {
  auto tracer = Make(orn::kTraceLevelDetail);
  ORN_TRACE(tracer.Get(), orn::kTraceLevelDetail)
      << "odfim\tPath: /a\n2025-01-01T00:00:00.000000Z 300 1 forged\x1b[2J\xff\\";
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 1u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, kLine)) << lines[0];
  EXPECT_EQ(m[2], "odfim\tPath: /a\\x0a2025-01-01T00:00:00.000000Z 300 1 forged\\x1b[2J\\xff\\\\");
}

struct RecordingTap final : TraceTap {
  void OnLine(std::uint32_t level, std::string_view text) override {
    lines.emplace_back(level, std::string(text));
  }
  std::vector<std::pair<std::uint32_t, std::string>> lines;
};

// The host learns why a run failed from error and warning lines whatever
// level the user asked for; the tap sees the raw text, the file only the
// user's levels.
TEST_F(TracerTest, TapSeesLinesUpToItsLevelWhateverTheWrittenLevel) {
  for (const std::uint32_t userLevel : {0u, orn::kTraceLevelError}) {
    auto tracer = Make(userLevel);
    auto tap = std::make_shared<RecordingTap>();
    tracer->SetTap(tap, orn::kTraceLevelWarning);
    ORN_TRACE(tracer.Get(), orn::kTraceLevelError) << "failed '/x\n'";
    ORN_TRACE(tracer.Get(), orn::kTraceLevelWarning) << "skipped";
    ORN_TRACE(tracer.Get(), orn::kTraceLevelDetail) << "detail";
    ASSERT_EQ(tap->lines.size(), 2u);
    EXPECT_EQ(tap->lines[0].first, orn::kTraceLevelError);
    EXPECT_EQ(tap->lines[0].second, "failed '/x\n'");
    EXPECT_EQ(tap->lines[1].second, "skipped");
  }
  const auto lines = Lines();  // the level-0 tracer wrote nothing
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("failed '/x\\x0a'"), std::string::npos) << lines[0];
}

}  // namespace
}  // namespace arvo::host
