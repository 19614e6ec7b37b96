#include "host/output/host_events.h"

#include "pax/enumerations.h"

namespace arvo::host {

const char* CoverageReasonName(CoverageReason reason) {
  switch (reason) {
    case CoverageReason::kQueueOverflow:
      return "QueueOverflow";
    case CoverageReason::kWatchLimit:
      return "WatchLimit";
    case CoverageReason::kUnreadable:
      return "Unreadable";
    case CoverageReason::kRootGone:
      return "RootGone";
    case CoverageReason::kRootBack:
      return "RootBack";
  }
  return "Unknown";
}

pax::ProductEvent MakeCoverageEvent(const std::string& area, CoverageReason reason,
                                    const std::string& path, std::time_t now) {
  const bool restored = reason == CoverageReason::kRootBack;
  pax::ProductEvent event;
  event.eventType = restored ? host_event_type::kCoverageRestored : host_event_type::kCoverageLost;
  event.severity = restored ? pax::severity::kInformational : pax::severity::kError;
  event.time = static_cast<std::int64_t>(now);
  event.Add(host_field::kArea, pax::FieldValue::Text8(area));
  event.Add(host_field::kReason, pax::FieldValue::Text8(CoverageReasonName(reason)));
  event.Add(pax::field::kPath, pax::FieldValue::Text8(path.empty() ? area : path));
  return event;
}

std::optional<std::string_view> EventTypeName(std::uint32_t eventType) {
  switch (eventType) {
    case host_event_type::kCoverageLost:
      return "CoverageLost";
    case host_event_type::kCoverageRestored:
      return "CoverageRestored";
    default:
      return pax::NameOf(pax::ProductEventTypeTable(), static_cast<std::int32_t>(eventType));
  }
}

std::optional<std::string_view> FieldName(std::uint32_t fieldId) {
  switch (fieldId) {
    case host_field::kArea:
      return "Area";
    case host_field::kReason:
      return "Reason";
    default:
      return pax::NameOf(pax::EventFieldNameTable(), static_cast<std::int32_t>(fieldId));
  }
}

}  // namespace arvo::host
