#include "host/watch/inotify_event_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "host/util/scoped_fd.h"

namespace arvo::host {
namespace {

using Clock = InotifyEventReader::Clock;

// One record as the kernel writes it: the name padded with NULs.
std::string Record(int wd, std::uint32_t mask, std::uint32_t cookie, const std::string& name) {
  const std::size_t len = name.empty() ? 0 : (name.size() + 16) / 16 * 16;
  const struct inotify_event header = {wd, mask, cookie, static_cast<std::uint32_t>(len)};
  std::string record(reinterpret_cast<const char*>(&header), sizeof header);
  record += name;
  record.resize(sizeof header + len, '\0');
  return record;
}

class InotifyEventReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
    m_read.Reset(fds[0]);
    m_write.Reset(fds[1]);
  }
  // Makes `records` readable and lets the reader read them.
  void Arrive(const std::vector<std::string>& records) {
    std::string bytes;
    for (const std::string& r : records) bytes += r;
    ASSERT_EQ(WriteAll(m_write.Get(), bytes.data(), bytes.size()), 0);
    ASSERT_EQ(reader.Fill(m_read.Get()), 0);
  }
  std::vector<RawInotifyEvent> Drain(Clock::time_point now) {
    std::vector<RawInotifyEvent> out;
    reader.Drain(now, out);
    return out;
  }

  InotifyEventReader reader;
  const Clock::time_point t0 = Clock::now();

 private:
  ScopedFd m_read;
  ScopedFd m_write;
};

TEST_F(InotifyEventReaderTest, JoinsAMoveAcrossInterleavedRecordsKeepingOrder) {
  Arrive({Record(1, IN_CREATE, 0, "a"), Record(1, IN_MOVED_FROM, 7, "x"),
          Record(2, IN_MODIFY, 0, "\xff\nm"), Record(2, IN_MOVED_TO, 7, "y"),
          Record(1, IN_DELETE_SELF, 0, "")});
  const auto out = Drain(t0);
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[0].name, "a");
  EXPECT_TRUE(out[1].IsJoinedMove());
  EXPECT_EQ(out[1].name + ">" + out[1].toName, "x>y");
  EXPECT_EQ(out[1].toWd, 2);
  EXPECT_EQ(out[2].name, "\xff\nm");
  EXPECT_EQ(out[3].mask, IN_DELETE_SELF);
  EXPECT_EQ(out[3].name, "");
  EXPECT_FALSE(reader.Deadline());
}

TEST_F(InotifyEventReaderTest, HoldsAnUnpairedMoveUntilItsPartnerArrives) {
  Arrive({Record(1, IN_CREATE, 0, "a"), Record(1, IN_MOVED_FROM, 9, "x"),
          Record(1, IN_MODIFY, 0, "m")});
  ASSERT_EQ(Drain(t0).size(), 1u);  // the move and what follows it wait
  ASSERT_TRUE(reader.Deadline());
  EXPECT_EQ(*reader.Deadline(), t0 + InotifyEventReader::kMovePairWait);
  Arrive({Record(3, IN_MOVED_TO, 9, "y")});
  const auto out = Drain(t0 + std::chrono::milliseconds(1));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].toName, "y");
  EXPECT_EQ(out[1].name, "m");
  EXPECT_FALSE(reader.Deadline());
  EXPECT_EQ(reader.Pending(), 0u);
}

TEST_F(InotifyEventReaderTest, UnpairedMovesAlreadyReadShareOneWait) {
  Arrive({Record(1, IN_MOVED_FROM, 3, "p"), Record(1, IN_MOVED_FROM, 4, "q"),
          Record(1, IN_CREATE, 0, "c")});
  EXPECT_TRUE(Drain(t0).empty());
  const auto out = Drain(t0 + InotifyEventReader::kMovePairWait);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_FALSE(out[0].IsJoinedMove());
  EXPECT_FALSE(out[1].IsJoinedMove());
  EXPECT_EQ(out[2].name, "c");
  EXPECT_FALSE(reader.Deadline());
}

}  // namespace
}  // namespace arvo::host
