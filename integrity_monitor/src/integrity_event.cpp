#include "integrity_event.h"

#include <optional>
#include <string>
#include <string_view>

#include "orn/text.h"
#include "pax/enumerations.h"

namespace pax::fim {
namespace {

orn::types::string16_t TaskTypeName(std::int32_t taskType) {
  const std::optional<std::string_view> name = NameOf(FimTaskTypeTable(), taskType);
  return name ? orn::text::NarrowToWide(std::string(*name)) : orn::types::string16_t();
}

}  // namespace

const orn::types::string16_t& TaskTypeText(std::int32_t taskType) {
  static const orn::types::string16_t onAccess = TaskTypeName(task_type::kOnAccess);
  static const orn::types::string16_t onDemand = TaskTypeName(task_type::kOnDemand);
  static const orn::types::string16_t none;
  switch (taskType) {
    case task_type::kOnAccess:
      return onAccess;
    case task_type::kOnDemand:
      return onDemand;
    default:
      return none;
  }
}

const orn::types::string16_t& OnAccessTaskName() {
  static const orn::types::string16_t name = u"System_Integrity_Monitoring";
  return name;
}

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
