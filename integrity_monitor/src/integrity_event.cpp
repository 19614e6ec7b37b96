#include "integrity_event.h"

namespace pax::fim {

const orn::types::string16_t kTaskTypeOnAccess = u"OAFIM";
const orn::types::string16_t kTaskTypeOnDemand = u"ODFIM";
const orn::types::string16_t kOnAccessTaskName = u"System_Integrity_Monitoring";

std::int64_t EventTime(ClockFn clock) noexcept {
  timespec now{};
  if (clock(CLOCK_REALTIME, &now) != 0) return -1;
  return static_cast<std::int64_t>(now.tv_sec);
}

ProductEvent MakeIntegrityEvent(std::uint32_t eventType, std::uint32_t severity, ClockFn clock) {
  ProductEvent event;
  event.id = 0;
  event.eventType = eventType;
  event.severity = severity;
  event.headerWord = kIntegrityEventHeaderWord;
  event.headerText.reset();
  event.time = EventTime(clock);
  return event;
}

}  // namespace pax::fim
