#include "framework/trace.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <string>

#include "framework/check.h"
#include "tests/fake_host.h"

namespace {

using arvo::test::RecordingTracer;

// A tracer that keeps both defaults.
class DefaultTracer final : public orn::SimpleObject<orn::ITracer> {};

int g_formatted = 0;
std::string Costly() {
  ++g_formatted;
  return "costly";
}

TEST(Trace, WritesAtAcceptedLevelWithoutTerminator) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  ORN_TRACE(tracer.Get(), 800) << "odfim\t"
                               << "Path: " << 42 << ' ' << 1.5;
  const auto lines = tracer->Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 800u);
  EXPECT_EQ(lines[0].text, "odfim\tPath: 42 1.5");
}

TEST(Trace, RefusedLevelComposesNothing) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  tracer->SetMaxLevel(300);
  g_formatted = 0;
  ORN_TRACE(tracer.Get(), 800) << Costly();
  ORN_TRACE(static_cast<orn::ITracer*>(nullptr), 300) << Costly();
  EXPECT_EQ(g_formatted, 0);
  EXPECT_TRUE(tracer->Lines().empty());
  EXPECT_EQ(tracer->OpenCalls(), 1u);  // the level test is one call
}

TEST(Trace, DefaultOperationsRefuseTheLine) {
  // The defaults are called (their address cannot tell a host's copy from
  // the module's) and refuse: nothing is composed.
  auto tracer = orn::MakeSimple<DefaultTracer>();
  g_formatted = 0;
  ORN_TRACE(tracer.Get(), 300) << Costly();
  EXPECT_EQ(g_formatted, 0);
  orn::TraceRecord record;
  EXPECT_EQ(tracer->OpenRecord(300, &record, 512), orn::errors::kNotSupported);
  EXPECT_EQ(tracer->CommitRecord(nullptr, 0), orn::errors::kNotSupported);
}

TEST(Trace, LongLineGrowsAndIsWrittenWhole) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  const std::string a(700, 'a'), b(3000, 'b');
  ORN_TRACE(tracer.Get(), 500) << a << b << "end";
  const auto lines = tracer->Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, a + b + "end");
}

TEST(Trace, RefusedGrowthDropsTheTextButStillCommits) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  tracer->RefuseGrowth(true);
  ORN_TRACE(tracer.Get(), 500) << "head " << std::string(600, 'x') << "tail";
  const auto lines = tracer->Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "");
}

TEST(Trace, StreamDefaultsAndSpecialTexts) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  const char* none = nullptr;
  ORN_TRACE(tracer.Get(), 800) << none << '|' << std::setw(4) << 7 << '|' << 3.14159265 << '|'
                               << std::u16string(u"\u00e9") << '|' << std::setfill('0')
                               << std::setw(9) << 42L;
  EXPECT_EQ(tracer->Lines().at(0).text, "(null)|   7|3.14159|\xc3\xa9|000000042");
}

TEST(Check, ResultLineHasTheExactForm) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  const result_t r = ORN_CHECK_AS(tracer.Get(), static_cast<result_t>(0x80000001),
                                  "orn::GetInterface(GetServiceLocator(), matcherFactory.Ref())",
                                  "Cannot get pax::IPathMatcherFactory interface");
  EXPECT_EQ(r, static_cast<result_t>(0x80000001));
  const auto lines = tracer->Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 300u);
  const std::string expected =
      "(orn::GetInterface(GetServiceLocator(), matcherFactory.Ref())),(ORN_SUCCEEDED(_result)) "
      "failed: result = 0x80000001 (Interface not supported)Cannot get "
      "pax::IPathMatcherFactory interface";
  const std::string& text = lines[0].text;
  EXPECT_EQ(text.substr(0, std::string("framework/trace_test.cpp:").size()),
            "framework/trace_test.cpp:");
  EXPECT_EQ(text.substr(text.find('(')), expected);
}

TEST(Check, BoolLineAndSuccessWritesNothing) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  const std::string path = "/x";
  EXPECT_TRUE(ORN_CHECK_BOOL(tracer.Get(), 1 + 1 == 2, "never"));
  EXPECT_EQ(ORN_CHECK(tracer.Get(), 1, "never"), 1);
  EXPECT_FALSE(ORN_CHECK_BOOL(tracer.Get(), path.empty(), "Cannot get acl attributes: " << path));
  const auto lines = tracer->Lines();
  ASSERT_EQ(lines.size(), 1u);
  const std::string& text = lines[0].text;
  EXPECT_NE(text.find("(path.empty()),(bool) failed: result = falseCannot get acl attributes: /x"),
            std::string::npos);
}

TEST(Check, DisabledErrorLevelStillReturnsTheFailure) {
  auto tracer = orn::MakeSimple<RecordingTracer>();
  tracer->RefuseLevel(300);
  g_formatted = 0;
  EXPECT_EQ(ORN_CHECK(tracer.Get(), orn::errors::kUnspecified, Costly()),
            orn::errors::kUnspecified);
  EXPECT_EQ(g_formatted, 0);
  EXPECT_TRUE(tracer->Lines().empty());
}

}  // namespace
