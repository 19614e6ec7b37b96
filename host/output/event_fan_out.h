// One publisher in front of several outputs (stdout or a file, the journal):
// every event goes to each, in the order given.
#pragma once

#include <vector>

#include "orn/ref_ptr.h"
#include "orn/simple_object.h"
#include "pax/product_event.h"

namespace arvo::host {

// Thread-safe: the list is fixed at construction and each output is.
class EventFanOut final : public orn::SimpleObject<pax::IEventPublisher> {
 public:
  explicit EventFanOut(std::vector<orn::RefPtr<pax::IEventPublisher>> outputs)
      : m_outputs(std::move(outputs)) {}

  // Publishes to every output, even after one fails; returns the first
  // failure, or kOk.
  orn::result_t Publish(const pax::ProductEvent& event) override;

 private:
  const std::vector<orn::RefPtr<pax::IEventPublisher>> m_outputs;
};

}  // namespace arvo::host
