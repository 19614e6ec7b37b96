#include "worker_thread.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

namespace pax::fim {
namespace {

TEST(WorkerThreadTest, JoinWaitsForTheRunnableAndRestartJoinsFirst) {
  std::promise<void> go;
  std::shared_future<void> goSignal = go.get_future().share();
  int runs = 0;
  std::thread::id ranOn;
  WorkerThread worker;
  ASSERT_EQ(worker.Start([&] {
    goSignal.wait();
    ranOn = std::this_thread::get_id();
    return static_cast<std::uint32_t>(++runs);
  }),
            orn::errors::kOk);
  std::thread releaser([&] { go.set_value(); });
  worker.Join();
  releaser.join();
  EXPECT_EQ(runs, 1);
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(worker.HasThread());

  for (int i = 0; i < 2; ++i)
    ASSERT_EQ(worker.Start([&] { return static_cast<std::uint32_t>(++runs); }), orn::errors::kOk);
  ASSERT_EQ(worker.Start([]() -> std::uint32_t { throw std::runtime_error("swallowed"); }),
            orn::errors::kOk);
  EXPECT_TRUE(worker.WaitFinished());
  worker.Join();
  EXPECT_EQ(runs, 3);
}

}  // namespace
}  // namespace pax::fim
