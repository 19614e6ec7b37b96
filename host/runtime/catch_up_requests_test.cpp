#include "host/runtime/catch_up_requests.h"

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

TEST(CatchUpRequestsTest, ManyRequestsMakeOnePendingScan) {
  CatchUpRequests requests;
  ASSERT_TRUE(requests.Valid());
  EXPECT_FALSE(Readable(requests.Fd()));
  EXPECT_FALSE(requests.Take());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) requests.Request(t % 2 ? "QueueOverflow: /a" : "RootGone: /b");
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_TRUE(Readable(requests.Fd()));
  const auto reasons = requests.Take();
  ASSERT_TRUE(reasons);
  EXPECT_TRUE(*reasons == "QueueOverflow: /a; RootGone: /b" ||
              *reasons == "RootGone: /b; QueueOverflow: /a")
      << *reasons;
  EXPECT_FALSE(Readable(requests.Fd()));
  EXPECT_FALSE(requests.Take());
}

TEST(CatchUpRequestsTest, ARequestDuringAScanMakesExactlyOneMore) {
  CatchUpRequests requests;
  requests.Request("QueueOverflow: /a");
  ASSERT_TRUE(requests.Take());  // the scan starts
  requests.Request("QueueOverflow: /a");
  requests.Request("QueueOverflow: /a");
  EXPECT_TRUE(Readable(requests.Fd()));             // once it ends, the loop wakes...
  EXPECT_EQ(requests.Take(), "QueueOverflow: /a");  // ...for one more scan
  EXPECT_FALSE(Readable(requests.Fd()));
  EXPECT_FALSE(requests.Take());
}

}  // namespace
}  // namespace arvo::host
