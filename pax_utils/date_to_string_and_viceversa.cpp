#include "pax_utils/date_to_string_and_viceversa.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "framework/exceptions.h"

namespace pax::utils {

namespace {

constexpr std::size_t kMaxFormatLength = 2048;
constexpr std::size_t kOutputBufferSize = 4096;
constexpr const char kFormatTooLong[] = "Format specification is too long";

}  // namespace

std::string FormatTime(const std::tm& tm, const std::string& format) {
  if (format.empty()) return {};
  if (::strnlen(format.c_str(), kMaxFormatLength) >= kMaxFormatLength)
    throw std::out_of_range(kFormatTooLong);
  char buffer[kOutputBufferSize];
  const std::size_t written = std::strftime(buffer, sizeof(buffer), format.c_str(), &tm);
  // 0 means "did not fit" or "empty": neither is a usable date text.
  if (written == 0) throw std::out_of_range(kFormatTooLong);
  return std::string(buffer, written);
}

void date_to_string(std::string& out, const timespec& time, const std::string& format) {
  std::tm tm{};
  if (::localtime_r(&time.tv_sec, &tm) == nullptr) {
    const int err = errno;
    const int line = __LINE__;
    throw orn::datetime::TimeSystemError(__FILE__, line, err,
                                         "System function '::localtime_r' ends with error. In " +
                                             std::string(__FILE__) + ":" + std::to_string(line));
  }
  out = FormatTime(tm, format);
  char nanos[32];
  std::snprintf(nanos, sizeof(nanos), ".%09ld", static_cast<long>(time.tv_nsec));
  out += nanos;
}

}  // namespace pax::utils
