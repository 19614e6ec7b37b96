#include "host/runtime/daemon_status.h"

namespace arvo::host {

std::size_t AreaNumber(const pax::settings::ODFIMSettings& settings, const std::string& path) {
  std::size_t number = 0;
  for (const pax::settings::ScanArea& area : settings.scanAreas) {
    if (!area.areaFlag) continue;
    ++number;
    if (area.path == path) return number;
  }
  return 0;
}

std::size_t EnabledAreas(const pax::settings::ODFIMSettings& settings) {
  std::size_t count = 0;
  for (const pax::settings::ScanArea& area : settings.scanAreas) count += area.areaFlag ? 1 : 0;
  return count;
}

std::string ScanningStatus(std::size_t area, std::size_t areas, std::uint64_t objects) {
  return "scanning area " + std::to_string(area) + " of " + std::to_string(areas) + ", " +
         std::to_string(objects) + " objects";
}

std::string WatchingStatus(WatchCount watching, std::optional<std::time_t> nextScan) {
  const std::string directories = std::to_string(watching.directories) + " directories";
  std::string text = "watching ";
  if (watching.markedAreas == 0) {
    text += directories + ", ";
  } else {
    text += std::to_string(watching.markedAreas) + " areas with fanotify marks, ";
    if (watching.directories > 0) text += directories + " with inotify, ";
  }
  if (!nextScan) return text + "no scheduled scans";
  std::tm local{};
  char clock[16] = "?";
  if (::localtime_r(&*nextScan, &local)) std::strftime(clock, sizeof clock, "%H:%M", &local);
  return text + "next scan at " + clock;
}

}  // namespace arvo::host
