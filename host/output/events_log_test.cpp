#include "host/output/events_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "host/output/event_fanout.h"
#include "host/util/test_temp_dir.h"
#include "pax/enumerations.h"

namespace arvo::host {
namespace {

pax::ProductEvent EventFor(const std::string& path) {
  pax::ProductEvent e;
  e.eventType = pax::event_type::kSystemIntegrityIssue;
  e.Add(pax::field::kPath, pax::FieldValue::Text8(path));
  return e;
}

std::string Content(const std::string& file) {
  std::ostringstream s;
  s << std::ifstream(file).rdbuf();
  return s.str();
}

class CountingOutput final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  explicit CountingOutput(orn::result_t result) : m_result(result) {}
  orn::result_t Publish(const pax::ProductEvent&) override {
    ++calls;
    return m_result;
  }
  int calls = 0;

 private:
  orn::result_t m_result;
};

TEST(EventsLogTest, CreatesItsDirectoryAndFileAndStartsAFreshFileOnReopen) {
  arvo::test::TempDir dir;
  const mode_t umask = ::umask(022);
  const std::string file = dir / "log/sub/events.jsonl";
  auto log = orn::MakeSimple<EventsLog>();
  EXPECT_EQ(log->Publish(EventFor("/dropped")), orn::errors::kOk);  // closed: written nowhere
  std::string error;
  ASSERT_TRUE(log->Open(file, error)) << error;
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  ASSERT_EQ(::stat((dir / "log").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0750u);

  ASSERT_EQ(log->Publish(EventFor("/one")), orn::errors::kOk);
  ASSERT_EQ(std::rename(file.c_str(), (file + ".1").c_str()), 0);
  ASSERT_EQ(log->Publish(EventFor("/two")), orn::errors::kOk);  // still the renamed file
  ASSERT_TRUE(log->Reopen(error)) << error;
  ASSERT_EQ(log->Publish(EventFor("/three")), orn::errors::kOk);
  const std::string rotated = Content(file + ".1");
  EXPECT_NE(rotated.find("\"/one\""), std::string::npos);
  EXPECT_NE(rotated.find("\"/two\""), std::string::npos);
  const std::string fresh = Content(file);
  EXPECT_EQ(fresh.find("\"/two\""), std::string::npos);
  EXPECT_NE(fresh.find("\"/three\""), std::string::npos);
  EXPECT_EQ(fresh.back(), '\n');

  // A path that cannot be opened keeps the current file.
  EXPECT_FALSE(log->Open(dir / "log/sub/events.jsonl/not-a-dir/x", error));
  EXPECT_NE(error.find("cannot open the events log"), std::string::npos) << error;
  EXPECT_EQ(log->Path(), file);
  ::umask(umask);
}

TEST(EventFanoutTest, EveryOutputGetsTheEventAndTheFirstFailureIsReturned) {
  auto ok = orn::MakeSimple<CountingOutput>(orn::errors::kOk);
  auto failing = orn::MakeSimple<CountingOutput>(orn::errors::kUnspecified);
  auto last = orn::MakeSimple<CountingOutput>(orn::errors::kOk);
  auto fanout = orn::MakeSimple<EventFanout>(
      std::vector<orn::RefPtr<pax::IEventPublisher>>{ok, failing, last});
  EXPECT_EQ(fanout->Publish(EventFor("/x")), orn::errors::kUnspecified);
  EXPECT_EQ(ok->calls + failing->calls + last->calls, 3);
}

}  // namespace
}  // namespace arvo::host
