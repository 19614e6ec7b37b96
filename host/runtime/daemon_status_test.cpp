#include "host/runtime/daemon_status.h"

#include <gtest/gtest.h>

namespace arvo::host {
namespace {

TEST(DaemonStatusTest, AreasAreCountedAmongTheEnabledOnes) {
  pax::settings::ODFIMSettings s;
  for (const auto& [path, on] : {std::pair{"/a", true}, {"/off", false}, {"/b", true}})
    s.scanAreas.push_back({u"", on, path, {}});
  EXPECT_EQ(EnabledAreas(s), 2u);
  EXPECT_EQ(AreaNumber(s, "/b"), 2u);
  EXPECT_EQ(AreaNumber(s, "/off"), 0u);
  EXPECT_EQ(AreaNumber(s, ""), 0u);
  EXPECT_EQ(ScanningStatus(2, 5, 12345), "scanning area 2 of 5, 12345 objects");
}

TEST(DaemonStatusTest, WatchingNamesTheNextScanOrItsAbsence) {
  EXPECT_EQ(WatchingStatus({812, 0}, std::nullopt), "watching 812 directories, no scheduled scans");
  EXPECT_EQ(WatchingStatus({0, 9}, std::nullopt),
            "watching 9 areas with fanotify marks, no scheduled scans");
  EXPECT_EQ(WatchingStatus({3, 9}, std::nullopt),
            "watching 9 areas with fanotify marks, 3 directories with inotify, no scheduled scans");
  std::tm local{};
  local.tm_year = 126;
  local.tm_mon = 10;
  local.tm_mday = 25;
  local.tm_hour = 14;
  local.tm_min = 5;
  local.tm_isdst = -1;
  EXPECT_EQ(WatchingStatus({3, 0}, std::mktime(&local)),
            "watching 3 directories, next scan at 14:05");
}

}  // namespace
}  // namespace arvo::host
