#include "settings/fim_settings_equality.h"

#include <gtest/gtest.h>

namespace {

using pax::settings::ODFIMSettings;
using pax::settings::ScanArea;

ODFIMSettings Sample() {
  ODFIMSettings s;
  ScanArea etc{u"etc", true, "/etc", {{u"c", "*.swp", {}, true}}};
  ScanArea usr{u"usr", true, "/usr/bin", {}};
  s.scanAreas = {etc, usr};
  s.globalExclusions = {{u"", "/etc/mtab", {}, true}};
  s.excludeMode = 1;
  s.excludeMasks = {"*~"};
  s.ruleId = u"rule-1";
  s.computeContentHash = true;
  return s;
}

TEST(SettingsEquality, AccessTimeFlagAndRuleIdAreIgnored) {
  ODFIMSettings a = Sample(), b = Sample();
  EXPECT_TRUE(pax::settings::SameSettings(a, b));
  b.reportAccessTime = true;
  b.ruleId = u"other";
  EXPECT_TRUE(pax::settings::SameSettings(a, b));
  EXPECT_FALSE(a == b);  // full value equality still sees them
}

TEST(SettingsEquality, EachComparedMemberBreaksEquality) {
  const ODFIMSettings a = Sample();
  auto differs = [&](auto mutate) {
    ODFIMSettings b = a;
    mutate(b);
    return !pax::settings::SameSettings(a, b);
  };
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.autoUpdateBaseline = true; }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.computeContentHash = false; }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.globalOption3 = true; }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { std::swap(s.scanAreas[0], s.scanAreas[1]); }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.scanAreas[1].areaName = u"x"; }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.scanAreas[0].localExclusions[0].enabled = false; }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.globalExclusions[0].exceptions.push_back("a"); }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.excludeMode = 2; }));
  EXPECT_TRUE(differs([](ODFIMSettings& s) { s.excludeMasks.clear(); }));
}

TEST(SettingsEquality, PartialComparisons) {
  ODFIMSettings a = Sample(), b = Sample();
  b.autoUpdateBaseline = true;
  EXPECT_FALSE(pax::settings::GlobalFlagsDiffer(a, b));  // the first flag is not global
  b.globalOption3 = true;
  EXPECT_TRUE(pax::settings::GlobalFlagsDiffer(a, b));
  b = a;
  b.excludeMasks.push_back("*.tmp");
  EXPECT_TRUE(pax::settings::GlobalExcludesDiffer(a, b));
  ASSERT_NE(pax::settings::FindArea(a, "/usr/bin"), nullptr);
  EXPECT_EQ(pax::settings::FindArea(a, "/usr/bin/"), nullptr);  // texts compared as they are
  ScanArea x = a.scanAreas[0];
  x.localExclusions.clear();
  EXPECT_FALSE(pax::settings::AreaSettingsDiffer(a.scanAreas[0], x));
  x.areaFlag = false;
  EXPECT_TRUE(pax::settings::AreaSettingsDiffer(a.scanAreas[0], x));
}

}  // namespace
