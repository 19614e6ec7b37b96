// Result codes shared by the module, its host and every host service.
//
// result_t is a signed 32-bit code: bit 31 set means failure, bits 16-30 hold
// the facility (0 general, 1 platform), bits 0-15 the code. 0 is "No error",
// 1 is "False" (success, but nothing was done). Callers test failure by sign
// only: never compare a result against a list of failure codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Declared at global scope so that signatures print as "result_t" in the
// entry trace lines of every operation (the compiler spells typedefs by the
// name they were declared with).
typedef std::int32_t result_t;

namespace orn {

using ::result_t;

constexpr bool Succeeded(result_t r) noexcept { return r >= 0; }
constexpr bool Failed(result_t r) noexcept { return r < 0; }

constexpr std::uint32_t Facility(result_t r) noexcept {
  return (static_cast<std::uint32_t>(r) >> 16) & 0x7FFFu;
}

namespace errors {
// General facility. Only the codes the module or host produce are named; the
// message table in the framework knows every code the product defines.
inline constexpr result_t kOk = 0x00000000;
inline constexpr result_t kFalse = 0x00000001;
inline constexpr result_t kNoInterface = static_cast<result_t>(0x80000001);
inline constexpr result_t kUnexpected = static_cast<result_t>(0x80000040);
inline constexpr result_t kOutOfMemory = static_cast<result_t>(0x80000041);
inline constexpr result_t kNotSupported = static_cast<result_t>(0x80000042);
inline constexpr result_t kNotImplemented = static_cast<result_t>(0x80000043);
inline constexpr result_t kBufferTooSmall = static_cast<result_t>(0x80000044);
inline constexpr result_t kAccessDenied = static_cast<result_t>(0x80000045);
inline constexpr result_t kInvalidArgument = static_cast<result_t>(0x80000046);
inline constexpr result_t kBadCast = static_cast<result_t>(0x80000047);
inline constexpr result_t kNotMatched = static_cast<result_t>(0x8000004A);
inline constexpr result_t kUnspecified = static_cast<result_t>(0x8000004B);
inline constexpr result_t kNotFound = static_cast<result_t>(0x8000004C);
inline constexpr result_t kFound = static_cast<result_t>(0x8000004D);
inline constexpr result_t kLocked = static_cast<result_t>(0x8000004F);
inline constexpr result_t kCancelled = static_cast<result_t>(0x80000051);
inline constexpr result_t kOutOfRange = static_cast<result_t>(0x8000005E);
inline constexpr result_t kOutOfSpace = static_cast<result_t>(0x80000062);
inline constexpr result_t kNotReady = static_cast<result_t>(0x80000063);
inline constexpr result_t kInvalidState = static_cast<result_t>(0x8000006A);
inline constexpr result_t kNotInitialized = static_cast<result_t>(0x8000006B);
inline constexpr result_t kUnknownException = static_cast<result_t>(0x80000072);
inline constexpr result_t kClassNotFound = static_cast<result_t>(0x80000100);
inline constexpr result_t kNoCurrentException = static_cast<result_t>(0x80000150);
inline constexpr result_t kExceptionNoResult = static_cast<result_t>(0x80000151);
inline constexpr result_t kExceptionSuccessResult = static_cast<result_t>(0x80000152);
inline constexpr result_t kTimeout = static_cast<result_t>(0x80000221);

// Platform facility (1): 0x80010100 + n.
inline constexpr result_t kPlatformUnspecified = static_cast<result_t>(0x80010100);
inline constexpr result_t kInvalidHandle = static_cast<result_t>(0x80010101);
inline constexpr result_t kFileNotFound = static_cast<result_t>(0x80010102);
inline constexpr result_t kPathNotFound = static_cast<result_t>(0x80010103);
inline constexpr result_t kSharingViolation = static_cast<result_t>(0x80010104);
inline constexpr result_t kAlreadyExists = static_cast<result_t>(0x80010105);
inline constexpr result_t kInvalidPathName = static_cast<result_t>(0x80010109);
}  // namespace errors

// Message text of a code; never fails ("Unknown result code" for codes
// without text). The returned view points into static storage.
std::string_view ResultMessage(result_t r) noexcept;

// "0x" + eight lower-case hex digits, then " (" + message + ")".
std::string ResultToTraceText(result_t r);

// The one errno-to-result mapper of the code base. Every errno has a
// platform-facility code; well-known ones map to named codes.
result_t ResultFromErrno(int err) noexcept;

// The operating system's error number behind a platform result, or 0.
int ErrnoFromResult(result_t r) noexcept;

}  // namespace orn

// The product's spelling of the success test.
#define ORN_SUCCEEDED(r) ((r) >= 0)
#define ORN_FAILED(r) ((r) < 0)
