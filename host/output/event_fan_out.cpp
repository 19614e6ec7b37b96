#include "host/output/event_fan_out.h"

namespace arvo::host {

orn::result_t EventFanOut::Publish(const pax::ProductEvent& event) {
  orn::result_t first = orn::errors::kOk;
  for (const auto& output : m_outputs) {
    const orn::result_t r = output->Publish(event);
    if (ORN_FAILED(r) && ORN_SUCCEEDED(first)) first = r;
  }
  return first;
}

}  // namespace arvo::host
