#include "failure_actions.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace pax::fim {
namespace {

TEST(FailureActionsTest, RunNewestFirstOnceDespiteAThrowingActionOrNotAtAllWhenDiscarded) {
  std::vector<int> order;
  result_t seen = 0;
  {
    FailureActions actions;
    actions.Add([&](result_t r) {
      order.push_back(1);
      seen = r;
    });
    actions.Add([&](result_t) { throw std::runtime_error("ignored"); });
    actions.Add([&](result_t) { order.push_back(3); });
    actions.Run(orn::errors::kCancelled);
    actions.Run(orn::errors::kUnspecified);  // already run: nothing left
  }
  EXPECT_EQ(order, (std::vector<int>{3, 1}));
  EXPECT_EQ(seen, orn::errors::kCancelled);
  {
    FailureActions actions;
    actions.Add([&](result_t) { order.push_back(4); });
    actions.Discard();
  }
  {
    FailureActions abandoned;  // left by an exception: runs on destruction
    abandoned.Add([&](result_t r) { seen = r; });
  }
  EXPECT_EQ(order.size(), 2u);
  EXPECT_EQ(seen, orn::errors::kUnexpected);
}

}  // namespace
}  // namespace pax::fim
