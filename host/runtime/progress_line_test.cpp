#include "host/runtime/progress_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "host/output/event_output.h"

namespace arvo::host {
namespace {

std::string Drain(int fd) {
  std::string all;
  char buffer[256];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) all.append(buffer, n);
  return all;
}

// A terminal shows progress and events on one screen: the event line must
// start on a cleared line, not after the progress text.
TEST(ProgressLineTest, AnEventLineClearsTheProgressLineFirst) {
  int p[2];
  ASSERT_EQ(::pipe2(p, O_NONBLOCK | O_CLOEXEC), 0);
  ScopedFd reader(p[0]);
  ProgressLine progress(p[1]);
  LineWriter writer{ScopedFd(::dup(p[1]))};
  writer.SetBeforeWrite([&] { progress.Clear(); });
  progress.Show("3 object(s) visited");
  ASSERT_EQ(writer.WriteLine("event one"), 0);
  ASSERT_EQ(writer.WriteLine("event two"), 0);
  EXPECT_EQ(Drain(reader.Get()), "\r3 object(s) visited\033[K\r\033[Kevent one\nevent two\n");
  ::close(p[1]);
}

}  // namespace
}  // namespace arvo::host
