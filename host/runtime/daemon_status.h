// The one-line status the daemon shows the service manager (STATUS=).
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "pax/settings/fim_settings.h"

namespace arvo::host {

// 1-based position of the enabled area `path` among the enabled areas of
// `settings`; 0 when it is not one of them (no area reached yet).
std::size_t AreaNumber(const pax::settings::ODFIMSettings& settings, const std::string& path);
std::size_t EnabledAreas(const pax::settings::ODFIMSettings& settings);

// "scanning area 2 of 5, 12345 objects"
std::string ScanningStatus(std::size_t area, std::size_t areas, std::uint64_t objects);
// What the watches cover: `directories` inotify watches, and `markedAreas`
// areas watched with fanotify's file-system marks (which hold no watch per
// directory).
struct WatchCount {
  std::size_t directories = 0;
  std::size_t markedAreas = 0;
};

// "watching 812 directories, next scan at 14:05" (local time), or
// "..., no scheduled scans" without one; with marks "watching 9 areas with
// fanotify marks, ..." (and ", 3 directories with inotify" where a file
// system could not be marked).
std::string WatchingStatus(WatchCount watching, std::optional<std::time_t> nextScan);

}  // namespace arvo::host
