#include "pause_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace pax::fim {
namespace {

TEST(PauseGateTest, RequestPauseReturnsOnlyOnceTheWorkerHasParked) {
  PauseGate gate;
  EXPECT_FALSE(gate.Checkpoint());  // no pause requested: passes at once
  gate.Release();                   // nobody parked: does not block

  std::atomic<bool> stop{false};
  std::atomic<int> parkedAndResumed{0};
  std::thread worker([&] {
    while (!stop.load())
      if (gate.Checkpoint()) ++parkedAndResumed;
  });
  for (int cycle = 1; cycle <= 3; ++cycle) {
    gate.RequestPause();
    EXPECT_TRUE(gate.IsPaused());
    // Parked: the worker cannot have counted this cycle yet.
    EXPECT_EQ(parkedAndResumed.load(), cycle - 1);
    gate.Release();
    EXPECT_FALSE(gate.IsPaused());
  }
  stop = true;
  worker.join();
  EXPECT_EQ(parkedAndResumed.load(), 3);
}

}  // namespace
}  // namespace pax::fim
