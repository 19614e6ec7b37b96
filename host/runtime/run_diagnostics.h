// What the host learns about a run from the module's trace lines: the object
// whose failure ended it, and the parts of areas that were skipped. The
// module names these only in trace lines, so the tracer hands them here at
// the warning level whatever level the user asked to see.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/services/tracer.h"

namespace arvo::host {

struct ObjectFailure {
  enum class Kind {
    kVanished,      // deleted or replaced while the walk passed: a retry may succeed
    kAccessDenied,  // not readable by this user
    kOther,
  };
  Kind kind = Kind::kOther;
  std::string object;  // the path, as the module wrote it
  std::string cause;   // "No such file or directory", "Access denied", ...
};

// A part of an area that was not scanned.
struct SkippedPart {
  std::string path;
  std::string why;  // "does not exist", "pseudo file system", "Access denied", ...
};

// The object and cause of a level-300 line that names an object in quotes
// ("Cannot stat for '/x': No such file or directory", "... failed: result =
// 0x80000045 (Access denied)Cannot open file '/x'"); nullopt for other lines.
// `earlier`: the cause an earlier line without an object gave, used when
// this line only says "Unspecified error".
std::optional<ObjectFailure> ParseFailureLine(std::string_view text, std::string_view earlier = {});

// The part named by a level-500 "... '<path>' ... Skip it" line.
std::optional<SkippedPart> ParseSkipLine(std::string_view text);

// Collects per run (Reset between runs). Thread-safe.
class RunDiagnostics final : public TraceTap {
 public:
  void OnLine(std::uint32_t level, std::string_view text) override;
  void Reset();

  // The first object failure since Reset: the deepest one, as callers
  // trace the same failure again on the way out.
  std::optional<ObjectFailure> Failure() const;
  std::vector<SkippedPart> Skipped() const;

 private:
  mutable std::mutex m_mutex;
  std::optional<ObjectFailure> m_failure;  // guarded by m_mutex
  std::string m_earlierCause;              // guarded by m_mutex
  std::vector<SkippedPart> m_skipped;      // guarded by m_mutex
};

}  // namespace arvo::host
