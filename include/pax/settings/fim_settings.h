// Settings records of the two integrity monitor tasks: plain values, copied
// whole at every hand-over, compared member by member.
#pragma once

#include <cstdint>
#include <vector>

#include "orn/types.h"

namespace pax::settings {

// One exclusion rule. Its meaning belongs to the path matcher
// (host/path_matcher.h documents it); the module only copies and compares it.
struct ExclusionEntry {
  orn::types::string16_t comment;      // free text, not interpreted
  NativePath pattern;                  // shell glob
  std::vector<NativePath> exceptions;  // globs re-included despite pattern
  bool enabled = true;                 // a disabled entry is kept, not applied
  bool operator==(const ExclusionEntry&) const = default;
};

struct ScanArea {
  orn::types::string16_t areaName;
  bool areaFlag = false;  // the area is enabled
  NativePath path;        // root of the area; key that matches areas of two records
  std::vector<ExclusionEntry> localExclusions;
  bool operator==(const ScanArea&) const = default;
};

// The scan-area part of a settings record (first view given to the matcher).
struct ScanScopeSettings {
  std::vector<ScanArea> scanAreas;
  bool operator==(const ScanScopeSettings&) const = default;
};

// How exclusion masks apply (excludeMode).
enum class ExcludeMode : std::uint32_t {
  kMasksOff = 0,         // masks are kept but not applied
  kMasksFiles = 1,       // masks exclude non-directories by file name
  kMasksEverything = 2,  // masks exclude any object by file name
};

// The exclusion part (second view given to the matcher).
struct ExclusionSettings {
  std::vector<ExclusionEntry> globalExclusions;
  std::uint32_t excludeMode = 0;         // an ExcludeMode value
  std::vector<NativePath> excludeMasks;  // file-name globs
  bool operator==(const ExclusionSettings&) const = default;
};

struct OAFIMSettings : ScanScopeSettings, ExclusionSettings {
  orn::types::string16_t ruleId;
  bool operator==(const OAFIMSettings&) const = default;
};

struct ODFIMSettings : OAFIMSettings {
  bool autoUpdateBaseline = false;
  bool computeContentHash = false;
  bool globalOption3 = false;
  bool reportAccessTime = false;
  bool operator==(const ODFIMSettings&) const = default;
};

inline constexpr std::uint32_t kODFIMSettingsTypeId = 0x9CDB78C4;

}  // namespace pax::settings
