#include "orn/result.h"

#include <cerrno>
#include <cstdio>

namespace orn {
namespace {

struct CodeText {
  std::uint32_t code;
  std::string_view text;
};

// Sorted by code; looked up by binary search.
constexpr CodeText kGeneral[] = {
    {0x00000000, "No error"},
    {0x00000001, "False"},
    {0x80000001, "Interface not supported"},
    {0x80000040, "Unexpected"},
    {0x80000041, "Out of memory"},
    {0x80000042, "Not supported"},
    {0x80000043, "Not implemented"},
    {0x80000044, "Buffer too small"},
    {0x80000045, "Access denied"},
    {0x80000046, "Invalid argument"},
    {0x80000047, "Bad cast"},
    {0x8000004A, "Not matched"},
    {0x8000004B, "Unspecified error"},
    {0x8000004C, "Not found"},
    {0x8000004D, "Found"},
    {0x8000004F, "Locked"},
    {0x80000050, "Not locked"},
    {0x80000051, "Operation cancelled"},
    {0x80000057, "Method not found"},
    {0x80000058, "Stack is empty"},
    {0x80000059, "Media error"},
    {0x8000005A, "Invalid signature"},
    {0x8000005B, "Invalid version"},
    {0x8000005C, "Invalid size"},
    {0x8000005D, "Invalid type"},
    {0x8000005E, "Out of range"},
    {0x80000062, "Out of space"},
    {0x80000063, "Not ready"},
    {0x80000064, "Less than"},
    {0x80000065, "More than"},
    {0x80000066, "Prohibited"},
    {0x80000067, "Already done"},
    {0x80000068, "Need reboot"},
    {0x80000069, "Bases corrupted"},
    {0x8000006A, "Invalid state"},
    {0x8000006B, "Not initialized"},
    {0x8000006C, "Insufficient resources"},
    {0x80000071, "Invalid result"},
    {0x80000072, "Unknown exception"},
    {0x80000076, "Meta information not found"},
    {0x80000077, "Numerical type overflow"},
    {0x80000078, "File is too big"},
    {0x80000079, "Trace level ok"},
    {0x8000007A, "Trace level prohibited"},
    {0x80000100, "Class not found"},
    {0x80000101, "Settings are required"},
    {0x80000102, "Unexpected settings"},
    {0x80000103, "Wrong settings type"},
    {0x80000104, "Wrong settings revision"},
    {0x80000105, "Settings not found"},
    {0x80000106, "Object is untrusted"},
    {0x80000150, "No current exception"},
    {0x80000151, "Exception has no result code"},
    {0x80000152, "Exception with successful result code"},
    {0x80000180, "Property not found"},
    {0x80000221, "Operation timeout"},
    {0x80000300, "Invalid symbol"},
    {0x80000301, "Non dec symbol"},
    {0x80000302, "Non hex symbol"},
    {0x80000303, "Non base64 symbol"},
    {0x80000310, "Syntax error"},
    {0x80000311, "GUID syntax error"},
    {0x80000312, "OID syntax error"},
    {0x80000313, "DateTime syntax error"},
};

// Indexed by code - 0x80010100; empty entries are the deliberate hole.
constexpr std::string_view kPlatform[] = {
    "Unspecified platform error",
    "Invalid handle",
    "File not found",
    "Path not found",
    "Sharing violation",
    "Already exists",
    "Wait abandoned",
    "Symbol not found",
    "Sxs is incorrect",
    "Invalid path name",
    {},
    {},
    {},
    {},
    {},
    {},
    "Cannot open an anonymous level security token",
    "Password is invalid",
    "Module not found",
    "System image bad signature",
    "Cloud file request aborted",
    "Memory mapping failed",
    "Network error",
    "System image bad format",
    "System shutdown in progress",
};

constexpr std::string_view kUnknown = "Unknown result code";

// Platform results that carry an errno not covered by a named code:
// facility 1, codes 0x1000 + errno (no message text of their own).
constexpr std::uint32_t kErrnoBase = 0x80011000u;

}  // namespace

std::string_view ResultMessage(result_t r) noexcept {
  const auto code = static_cast<std::uint32_t>(r);
  switch (Facility(r)) {
    case 0: {
      std::size_t lo = 0, hi = std::size(kGeneral);
      while (lo < hi) {
        const std::size_t mid = (lo + hi) / 2;
        if (kGeneral[mid].code < code) {
          lo = mid + 1;
        } else {
          hi = mid;
        }
      }
      if (lo < std::size(kGeneral) && kGeneral[lo].code == code) return kGeneral[lo].text;
      return kUnknown;
    }
    case 1:
      if (code >= 0x80010100u && code <= 0x80010118u) {
        const std::string_view t = kPlatform[code - 0x80010100u];
        return t.empty() ? kUnknown : t;
      }
      return kUnknown;
    default:
      return kUnknown;
  }
}

std::string ResultToTraceText(result_t r) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08x", static_cast<unsigned>(r));
  std::string out(hex);
  const std::string_view msg = ResultMessage(r);
  if (!msg.empty()) {
    out += " (";
    out += msg;
    out += ')';
  }
  return out;
}

result_t ResultFromErrno(int err) noexcept {
  switch (err) {
    case 0:
      return errors::kOk;
    case ENOMEM:
      return errors::kOutOfMemory;
    case EACCES:
    case EPERM:
      return errors::kAccessDenied;
    case EINVAL:
      return errors::kInvalidArgument;
    case ENOENT:
      return errors::kFileNotFound;
    case ENOTDIR:
      return errors::kPathNotFound;
    case EEXIST:
      return errors::kAlreadyExists;
    case EBADF:
      return errors::kInvalidHandle;
    case ENAMETOOLONG:
      return errors::kInvalidPathName;
    case ENOSPC:
      return errors::kOutOfSpace;
    case ETIMEDOUT:
      return errors::kTimeout;
    case ENOSYS:
    case EOPNOTSUPP:
      return errors::kNotSupported;
    case EAGAIN:
    case EBUSY:
      return errors::kNotReady;
    case ECANCELED:
      return errors::kCancelled;
    default:
      if (err > 0 && err < 0x1000) return static_cast<result_t>(kErrnoBase + err);
      return errors::kPlatformUnspecified;
  }
}

int ErrnoFromResult(result_t r) noexcept {
  const auto code = static_cast<std::uint32_t>(r);
  if (code > kErrnoBase && code < kErrnoBase + 0x1000) return static_cast<int>(code - kErrnoBase);
  switch (r) {
    case errors::kFileNotFound:
      return ENOENT;
    case errors::kPathNotFound:
      return ENOTDIR;
    case errors::kAlreadyExists:
      return EEXIST;
    case errors::kInvalidHandle:
      return EBADF;
    case errors::kInvalidPathName:
      return ENAMETOOLONG;
    default:
      return 0;
  }
}

}  // namespace orn
