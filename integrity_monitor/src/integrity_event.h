// Building the product events that both integrity monitor tasks publish.
#pragma once

#include <time.h>

#include <cstdint>

#include "orn/types.h"
#include "pax/product_event.h"

namespace pax::fim {

// The task identity texts carried in events: "TaskType" from the task-type
// table (pax::FimTaskTypeTable, "OAFIM" and "ODFIM") and the on-access
// task's "TaskName" ("System_Integrity_Monitoring"). Each is built once, on
// first use: static initialisation creates nothing but the enumeration
// tables, which are constant data. Thread-safe.
const orn::types::string16_t& TaskTypeText(std::int32_t taskType);  // pax::task_type
const orn::types::string16_t& OnAccessTaskName();
// The "TaskId" the on-access task writes into its events.
inline constexpr std::uint64_t kOnAccessTaskId = 11;
// The header word every integrity event carries.
inline constexpr std::uint32_t kIntegrityEventHeaderWord = 2;

using ClockFn = int (*)(clockid_t, timespec*);

// Seconds of the real-time clock, or -1 when the clock cannot be read.
std::int64_t EventTime(ClockFn clock = ::clock_gettime) noexcept;

// A header with identifier 0, the given type and severity, header word 2,
// no header text and the current time; no fields yet.
ProductEvent MakeIntegrityEvent(std::uint32_t eventType, std::uint32_t severity,
                                ClockFn clock = ::clock_gettime);

}  // namespace pax::fim
