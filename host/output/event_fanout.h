// One IEventPublisher in front of several: every event goes to each output
// in turn (the primary output, the events log, the journal, ...).
#pragma once

#include <vector>

#include "orn/ref_ptr.h"
#include "orn/simple_object.h"
#include "pax/product_event.h"

namespace arvo::host {

// The outputs are fixed at construction, so publishing needs no lock; each
// output is thread-safe on its own. A failing output does not keep the
// event from the others; the first failure is returned.
class EventFanout final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  explicit EventFanout(std::vector<orn::RefPtr<pax::IEventPublisher>> outputs)
      : m_outputs(std::move(outputs)) {}

  orn::result_t Publish(const pax::ProductEvent& event) override {
    orn::result_t first = orn::errors::kOk;
    for (const auto& output : m_outputs) {
      const orn::result_t r = output->Publish(event);
      if (ORN_FAILED(r) && ORN_SUCCEEDED(first)) first = r;
    }
    return first;
  }

 private:
  const std::vector<orn::RefPtr<pax::IEventPublisher>> m_outputs;
};

}  // namespace arvo::host
