#include "host/output/host_events.h"

#include <iterator>

#include "pax/enumerations.h"

namespace arvo::host {
namespace {

// The host's own names first: its ids are outside the product's range.
std::optional<std::string_view> NameIn(const pax::EnumTable& host, const pax::EnumTable& product,
                                       std::uint32_t value) {
  const auto name = pax::NameOf(host, static_cast<std::int32_t>(value));
  return name ? name : pax::NameOf(product, static_cast<std::int32_t>(value));
}

}  // namespace

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
  static constexpr pax::EnumRow kRows[] = {
      {host_event_type::kCoverageLost, "CoverageLost"},
      {host_event_type::kCoverageRestored, "CoverageRestored"}};
  static constexpr pax::EnumTable kHost{"HostEventType", kRows, std::size(kRows)};
  return NameIn(kHost, pax::ProductEventTypeTable(), eventType);
}

std::optional<std::string_view> FieldName(std::uint32_t fieldId) {
  static constexpr pax::EnumRow kRows[] = {{host_field::kArea, "Area"},
                                           {host_field::kReason, "Reason"}};
  static constexpr pax::EnumTable kHost{"HostEventFieldName", kRows, std::size(kRows)};
  return NameIn(kHost, pax::EventFieldNameTable(), fieldId);
}

}  // namespace arvo::host
