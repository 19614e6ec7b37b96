// Comparisons of settings records that decide whether a baseline taken under
// earlier settings still holds.
#pragma once

#include "pax/settings/fim_settings.h"

namespace pax::settings {

// Whole-settings equality as the on-demand task needs it: the first three of
// the four flags (the access-time flag is ignored), the scan areas pairwise
// in order (path, flag, name, local exclusions), the global exclusions
// pairwise, the exclusion mode and the exclusion masks. The rule id is not
// part of it.
bool SameSettings(const ODFIMSettings& a, const ODFIMSettings& b);

// The second or third flag differs (content hashing, the third global option).
bool GlobalFlagsDiffer(const ODFIMSettings& a, const ODFIMSettings& b);

// The exclusion mode or the exclusion mask list differs.
bool GlobalExcludesDiffer(const ODFIMSettings& a, const ODFIMSettings& b);

// The area of `settings` whose path equals `path`, or null.
const ScanArea* FindArea(const ODFIMSettings& settings, const NativePath& path);

// The area's own settings (flag or name) differ.
bool AreaSettingsDiffer(const ScanArea& a, const ScanArea& b);

}  // namespace pax::settings
