// A run-local list of actions to take when a run (or one area of it) ends
// in failure: what must be reported or undone is registered as soon as it
// becomes true, and the one exit path that knows the outcome either runs
// the list or discards it.
//
//   FailureActions actions;
//   actions.Add([&](result_t) { NotifyTaskStop(kUnspecified, u"..."); });
//   const result_t r = DoSteps();
//   if (ORN_FAILED(r)) actions.Run(r); else actions.Discard();
//
// Actions run in reverse order of registration, each once; an exception
// thrown by one is swallowed so that the rest still run. A list that is
// destroyed neither run nor discarded (an exception left the scope) runs
// its actions with errors::kUnexpected. Not thread-safe: one list belongs
// to one run on one thread.
#pragma once

#include <functional>
#include <vector>

#include "orn/result.h"

namespace pax::fim {

class FailureActions {
 public:
  // Receives the failure the run or area ended with.
  using Action = std::function<void(result_t failure)>;

  FailureActions() = default;
  ~FailureActions();
  FailureActions(const FailureActions&) = delete;
  FailureActions& operator=(const FailureActions&) = delete;

  void Add(Action action);
  // Runs every registered action (newest first) and empties the list.
  void Run(result_t failure) noexcept;
  // Empties the list without running anything.
  void Discard() noexcept { m_actions.clear(); }
  bool Empty() const { return m_actions.empty(); }

 private:
  std::vector<Action> m_actions;
};

}  // namespace pax::fim
