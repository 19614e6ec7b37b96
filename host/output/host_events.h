// Events the host makes itself, next to the module's, and the names of
// every event type and field the outputs print.
//
// The host's own events use type and field ids above the product's range
// (4096 and up), so they never collide with a module's:
//
//   "CoverageLost" (4096, severity Error 5): the on-access side lost events
//     or cannot watch part of an area; a catch-up scan of the area follows.
//   "CoverageRestored" (4097, severity Informational 4): an area lost
//     before is watched again.
//   Fields, in this order: 4096 Area (narrow text, the area's root),
//     4097 Reason (narrow text, see CoverageReasonName), 66 Path (narrow
//     text, the directory concerned; the area itself when the whole area
//     is concerned).
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "host/util/coverage_notice.h"
#include "pax/product_event.h"

namespace arvo::host {

namespace host_event_type {
inline constexpr std::uint32_t kCoverageLost = 4096;
inline constexpr std::uint32_t kCoverageRestored = 4097;
}  // namespace host_event_type

namespace host_field {
inline constexpr std::uint32_t kArea = 4096;
inline constexpr std::uint32_t kReason = 4097;
}  // namespace host_field

// "QueueOverflow", "WatchLimit", "Unreadable", "RootGone", "RootBack".
const char* CoverageReasonName(CoverageReason reason);

// A "CoverageLost" event, or "CoverageRestored" for kRootBack, stamped now.
pax::ProductEvent MakeCoverageEvent(const std::string& area, CoverageReason reason,
                                    const std::string& path, std::time_t now = std::time(nullptr));
inline pax::ProductEvent MakeCoverageEvent(const CoverageNotice& notice) {
  return MakeCoverageEvent(notice.area, notice.reason, notice.path);
}

// The name of an event type or field: the product's vocabulary first, then
// the host's own; nullopt when neither has it.
std::optional<std::string_view> EventTypeName(std::uint32_t eventType);
std::optional<std::string_view> FieldName(std::uint32_t fieldId);

}  // namespace arvo::host
