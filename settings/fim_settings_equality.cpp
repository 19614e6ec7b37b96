#include "settings/fim_settings_equality.h"

namespace pax::settings {

bool SameSettings(const ODFIMSettings& a, const ODFIMSettings& b) {
  return a.autoUpdateBaseline == b.autoUpdateBaseline &&
         a.computeContentHash == b.computeContentHash && a.globalOption3 == b.globalOption3 &&
         a.scanAreas == b.scanAreas && a.globalExclusions == b.globalExclusions &&
         a.excludeMode == b.excludeMode && a.excludeMasks == b.excludeMasks;
}

bool GlobalFlagsDiffer(const ODFIMSettings& a, const ODFIMSettings& b) {
  return a.computeContentHash != b.computeContentHash || a.globalOption3 != b.globalOption3;
}

bool GlobalExcludesDiffer(const ODFIMSettings& a, const ODFIMSettings& b) {
  return a.excludeMode != b.excludeMode || a.excludeMasks != b.excludeMasks;
}

const ScanArea* FindArea(const ODFIMSettings& settings, const NativePath& path) {
  for (const ScanArea& area : settings.scanAreas)
    if (area.path == path) return &area;
  return nullptr;
}

bool AreaSettingsDiffer(const ScanArea& a, const ScanArea& b) {
  return a.areaFlag != b.areaFlag || a.areaName != b.areaName;
}

}  // namespace pax::settings
