#include "settings/fim_settings_serial.h"

#include <gtest/gtest.h>

#include <string>

namespace pax::settings {
namespace {

using orn::serial::SerializableType;
using orn::serial::Value;

const orn::serial::TypeDescriptor& Descriptor() { return SerializableType<ODFIMSettings>::Get(); }

ODFIMSettings Sample() {
  ODFIMSettings s;
  ExclusionEntry e;
  e.comment = u"comment \u00e9\U0001F600";
  e.pattern = "/data/\xff\xfe*";  // not UTF-8
  e.exceptions = {
      "/data/\xff\xfe"
      "keep",
      ""};
  e.enabled = false;
  ScanArea a;
  a.areaName = u"area";
  a.areaFlag = true;
  a.path = "/srv/\x80";
  a.localExclusions = {e};
  s.scanAreas = {a, ScanArea{}};
  s.globalExclusions = {e, ExclusionEntry{}};
  s.excludeMode = 2;
  s.excludeMasks = {"*.log", "\xc0"};
  s.ruleId = u"rule-1";
  s.autoUpdateBaseline = true;
  s.globalOption3 = true;
  return s;
}

ODFIMSettings RoundTrip(const ODFIMSettings& in) {
  const Value v = Descriptor().toValue(&in);
  ODFIMSettings out;
  EXPECT_TRUE(Descriptor().fromValue(v, &out));
  return out;
}

TEST(FimSettingsSerialTest, RoundTripsEveryMember) {
  const ODFIMSettings s = Sample();
  EXPECT_EQ(RoundTrip(s), s);
  EXPECT_EQ(RoundTrip(ODFIMSettings{}), ODFIMSettings{});
  // Each flag on its own, so that swapped fields cannot cancel out.
  for (bool ODFIMSettings::*flag :
       {&ODFIMSettings::autoUpdateBaseline, &ODFIMSettings::computeContentHash,
        &ODFIMSettings::globalOption3, &ODFIMSettings::reportAccessTime}) {
    ODFIMSettings one;
    one.*flag = true;
    EXPECT_EQ(RoundTrip(one), one);
  }
}

TEST(FimSettingsSerialTest, RoundTripsLargeLists) {
  ODFIMSettings s;
  for (int i = 0; i < 2000; ++i) {
    ScanArea a;
    a.path = "/area/" + std::to_string(i);
    a.areaFlag = i % 2 == 0;
    s.scanAreas.push_back(a);
    s.excludeMasks.push_back("*." + std::to_string(i));
  }
  EXPECT_EQ(RoundTrip(s), s);
}

// Replaces the value of `name` in the top-level record.
Value With(Value v, const std::string& name, Value replacement) {
  for (auto& [n, field] : v.fields)
    if (n == name) field = std::move(replacement);
  return v;
}

TEST(FimSettingsSerialTest, RefusesTreesOfAnotherShapeAndKeepsTheRecord) {
  const ODFIMSettings original = Sample();
  const Value good = Descriptor().toValue(&original);
  Value missing = good;
  missing.fields.pop_back();
  Value badArea = good;
  badArea.fields[0].second.items[0].fields[2].second = Value::Text(u"/srv");  // path as text

  const Value bad[] = {
      Value::UInt(1),
      Value::Record(),
      missing,
      badArea,
      With(good, "reportAccessTime", Value::UInt(2)),
      With(good, "excludeMode", Value::UInt(1ull << 32)),
      With(good, "excludeMasks", Value::Bytes("*.log")),
      With(good, "ruleId", Value::Bytes("rule")),
  };
  for (const Value& v : bad) {
    ODFIMSettings target = original;
    EXPECT_FALSE(Descriptor().fromValue(v, &target));
    EXPECT_EQ(target, original);
  }
}

TEST(FimSettingsSerialTest, AnyHoldsTheRecord) {
  const orn::Any any = orn::Any::Make(Sample());
  ASSERT_TRUE(any.IsValid());
  EXPECT_EQ(any.TypeId(), 0x9CDB78C4u);
  EXPECT_STREQ(any.Type()->typeName, "ODFIMSettings");
  ASSERT_NE(any.Get<ODFIMSettings>(), nullptr);
  EXPECT_EQ(*any.Get<ODFIMSettings>(), Sample());
}

}  // namespace
}  // namespace pax::settings
