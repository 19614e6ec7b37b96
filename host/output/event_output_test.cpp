#include "host/output/event_output.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "pax/enumerations.h"

namespace arvo::host {
namespace {

std::string ReadAll(int fd) {
  std::string out;
  char buffer[65536];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) out.append(buffer, n);
  return out;
}

TEST(EventOutputTest, ConcurrentPublishersWriteWholeLinesAndAreCounted) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  ScopedFd readEnd(fds[0]);
  auto output = orn::MakeSimple<EventOutput>(std::make_shared<LineWriter>(ScopedFd(fds[1])),
                                             OutputFormat::kJson);
  std::string collected;
  std::thread reader([&] { collected = ReadAll(readEnd.Get()); });

  constexpr int kThreads = 3, kEach = 200;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      pax::ProductEvent e;
      e.eventType =
          t == 0 ? pax::event_type::kBaselineBuilt : pax::event_type::kSystemIntegrityIssue;
      e.Add(pax::field::kPath, pax::FieldValue::Text8(std::string(5000, char('a' + t))));
      for (int i = 0; i < kEach; ++i) EXPECT_EQ(output->Publish(e), orn::errors::kOk);
    });
  }
  for (auto& w : writers) w.join();
  EXPECT_EQ(output->Count(pax::event_type::kBaselineBuilt), static_cast<std::uint64_t>(kEach));
  EXPECT_EQ(output->Count(pax::event_type::kSystemIntegrityIssue),
            static_cast<std::uint64_t>(2 * kEach));
  output.Reset();  // closes the write end
  reader.join();

  std::size_t lines = 0, start = 0;
  for (std::size_t nl; (nl = collected.find('\n', start)) != std::string::npos; start = nl + 1) {
    const std::string line = collected.substr(start, nl - start);
    const char c = line[line.size() - 7];  // ...xxxxx"}]}
    EXPECT_EQ(line.find(std::string(5000, c)), line.size() - 5004) << line.substr(0, 80);
    ++lines;
  }
  EXPECT_EQ(lines, static_cast<std::size_t>(kThreads * kEach));
  EXPECT_EQ(start, collected.size());
}

// A reader that went away: the failure is remembered and signalled once.
TEST(LineWriterTest, AFailedWriteIsRememberedAndMakesTheFailedFdReadable) {
  int p[2];
  ASSERT_EQ(::pipe2(p, O_CLOEXEC), 0);
  ::close(p[0]);
  ::signal(SIGPIPE, SIG_IGN);
  LineWriter writer{ScopedFd(p[1])};
  EXPECT_EQ(writer.FailedErrno(), 0);
  EXPECT_TRUE(ORN_FAILED(writer.WriteLine("lost")));
  EXPECT_EQ(writer.FailedErrno(), EPIPE);
  ASSERT_GE(writer.FailedFd(), 0);
  std::uint64_t count = 0;
  EXPECT_EQ(::read(writer.FailedFd(), &count, sizeof count), static_cast<ssize_t>(sizeof count));
}

}  // namespace
}  // namespace arvo::host
