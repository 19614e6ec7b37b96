#include "host/runtime/scan_requests.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <thread>
#include <vector>

namespace arvo::host {
namespace {

bool Readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1;
}

TEST(ScanRequestsTest, RequestsFoldIntoOnePendingScanWithEveryReasonOnce) {
  ScanRequests requests;
  EXPECT_FALSE(requests.Take());
  EXPECT_FALSE(Readable(requests.Fd()));

  requests.Request("overflow");
  requests.Request("reload");
  requests.Request("overflow");
  EXPECT_TRUE(requests.Pending());
  EXPECT_TRUE(Readable(requests.Fd()));
  EXPECT_EQ(requests.Take(), "overflow, reload");
  // Taken: nothing pending, and the descriptor no longer wakes a poll loop.
  EXPECT_FALSE(requests.Pending());
  EXPECT_FALSE(Readable(requests.Fd()));
  EXPECT_FALSE(requests.Take());

  requests.Request("schedule");
  EXPECT_EQ(requests.Take(), "schedule");
}

TEST(ScanRequestsTest, ConcurrentRequestsMakeOneScan) {
  ScanRequests requests;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) requests.Request("overflow");
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(requests.Take(), "overflow");
  EXPECT_FALSE(requests.Take());
}

}  // namespace
}  // namespace arvo::host
