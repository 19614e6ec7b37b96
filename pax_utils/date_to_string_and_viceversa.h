// Time stamps as text for change events.
//
// Both functions report failures by exceptions (they are used where a text
// is being composed and no result code can be returned): a failing
// localtime_r raises orn::datetime::TimeSystemError carrying errno, a format
// that is too long or produces no text raises std::out_of_range. Thread-safe
// (localtime_r; the process's current local time zone applies).
#pragma once

#include <ctime>
#include <string>

namespace pax::utils {

// The product's date format: date, blank, time of day.
inline constexpr const char kDateFormat[] = "%Y-%m-%d %H:%M:%S";

// Formats `tm` with strftime. An empty format yields an empty string; a
// format of 2048 characters or more, or one whose result does not fit in
// 4096 bytes (or is empty), raises std::out_of_range
// "Format specification is too long".
std::string FormatTime(const std::tm& tm, const std::string& format);

// Writes `time` as local time in `format` followed by a point and exactly
// nine digits of nanoseconds ("2024-01-31 12:00:00.000000042").
void date_to_string(std::string& out, const timespec& time, const std::string& format);

}  // namespace pax::utils
