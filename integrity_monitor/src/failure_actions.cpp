#include "failure_actions.h"

#include <utility>

namespace pax::fim {

FailureActions::~FailureActions() { Run(orn::errors::kUnexpected); }

void FailureActions::Add(Action action) { m_actions.push_back(std::move(action)); }

void FailureActions::Run(result_t failure) noexcept {
  std::vector<Action> actions = std::move(m_actions);
  m_actions.clear();
  for (auto it = actions.rbegin(); it != actions.rend(); ++it) {
    try {
      (*it)(failure);
    } catch (...) {
      // One failing action must not keep the others from running.
    }
  }
}

}  // namespace pax::fim
