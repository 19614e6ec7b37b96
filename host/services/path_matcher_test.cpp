#include "host/services/path_matcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/fake_host.h"

namespace arvo::host {
namespace {

using pax::settings::ExclusionEntry;
using pax::settings::ODFIMSettings;
using pax::settings::ScanArea;

ExclusionEntry Entry(std::string pattern, std::vector<std::string> exceptions = {},
                     bool enabled = true) {
  ExclusionEntry e;
  e.comment = u"not interpreted";
  e.pattern = std::move(pattern);
  e.exceptions = std::move(exceptions);
  e.enabled = enabled;
  return e;
}

ScanArea Area(std::string path, std::vector<ExclusionEntry> local = {}, bool enabled = true) {
  ScanArea a;
  a.areaName = u"name";
  a.areaFlag = enabled;
  a.path = std::move(path);
  a.localExclusions = std::move(local);
  return a;
}

struct Case {
  std::string path;
  bool isDirectory;
  orn::result_t expected;
};

class PathMatcherTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(CreatePathMatcherFactory(m_tracer.Get(), m_factory), 0); }

  orn::RefPtr<pax::IPathMatcher> Fntree(const ODFIMSettings& s) {
    orn::RefPtr<pax::IPathMatcher> m;
    EXPECT_EQ(m_factory->CreateFntreeMatcher(s, s, m.Ref()), 0);
    return m;
  }

  static void ExpectTable(const pax::IPathMatcher& m, const std::vector<Case>& cases) {
    for (const Case& c : cases) {
      EXPECT_EQ(m.Match(c.path, c.isDirectory), c.expected)
          << "path '" << c.path << "' directory " << c.isDirectory;
    }
  }

  orn::RefPtr<test::RecordingTracer> m_tracer = orn::MakeSimple<test::RecordingTracer>();
  orn::RefPtr<pax::IPathMatcherFactory> m_factory;
};

// Areas: /etc, /data/ (with local exclusions) and a disabled /off.
ODFIMSettings TypicalSettings(std::uint32_t mode) {
  ODFIMSettings s;
  s.scanAreas = {Area("/etc"), Area("/data/", {Entry("*.tmp"), Entry("*.bak", {}, false)}),
                 Area("/off", {}, false)};
  s.globalExclusions = {Entry("/etc/ssh", {"/etc/ssh/keep*"}),
                        Entry("*.swp"),
                        Entry("cache/"),
                        Entry("build/*.o"),
                        Entry("/etc/**/secret"),
                        Entry("*.conf", {}, false),
                        Entry("")};
  s.excludeMode = mode;
  s.excludeMasks = {"*.log"};
  return s;
}

TEST_F(PathMatcherTest, AreasAndExclusions) {
  const auto m = Fntree(TypicalSettings(1));
  ExpectTable(*m, {
                      {"/etc", true, 0},
                      {"/etc/", true, 0},
                      {"/etcx", false, 1},
                      {"/", true, 1},
                      {"", false, 1},
                      {"/etc/passwd", false, 0},
                      {"/data", true, 0},
                      {"/off/x", false, 1},
                      {"/other/x", false, 1},
                      // A directory pattern excludes its subtree; exceptions
                      // re-include what they match and its subtree.
                      {"/etc/ssh", true, 1},
                      {"/etc/ssh/sshd_config", false, 1},
                      {"/etc/ssh/keepme", false, 0},
                      {"/etc/ssh/keep.d/x", false, 0},
                      // Name patterns, local and global, enabled or not.
                      {"/etc/.x.swp", false, 1},
                      {"/data/a.tmp", false, 1},
                      {"/etc/a.tmp", false, 0},
                      {"/data/a.bak", false, 0},
                      {"/etc/a.conf", false, 0},
                      // Directory-only pattern.
                      {"/data/cache", true, 1},
                      {"/data/cache", false, 0},
                      {"/data/cache/x", false, 1},
                      // Relative path patterns are anchored at each area root.
                      {"/data/build/x.o", false, 1},
                      {"/etc/build/x.o", false, 1},
                      {"/data/src/build/x.o", false, 0},
                      {"/data/build/x.c", false, 0},
                      // "**" spans any number of components, zero included.
                      {"/etc/secret", false, 1},
                      {"/etc/a/b/secret", false, 1},
                      {"/etc/a/b/secret2", false, 0},
                  });
}

TEST_F(PathMatcherTest, MasksFollowExcludeMode) {
  const std::vector<Case> off = {{"/etc/x.log", false, 0}, {"/etc/x.log", true, 0}};
  const std::vector<Case> files = {
      {"/etc/x.log", false, 1}, {"/etc/x.log", true, 0}, {"/etc/x.log/y", false, 0}};
  const std::vector<Case> everything = {{"/etc/x.log", false, 1},
                                        {"/etc/x.log", true, 1},
                                        {"/etc/x.log/y", false, 1},
                                        {"/etc/y", false, 0}};
  ExpectTable(*Fntree(TypicalSettings(0)), off);
  ExpectTable(*Fntree(TypicalSettings(1)), files);
  ExpectTable(*Fntree(TypicalSettings(2)), everything);
}

TEST_F(PathMatcherTest, ConcurrentMatchesAgree) {
  // Matching keeps per-call scratch; threads must not see each other's.
  const auto m = Fntree(TypicalSettings(2));
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const std::string deep = "/etc/a/b/c/d/e/f/g/h" + std::string(t, 'x');
      for (int i = 0; i < 2000; ++i) {
        if (m->Match(deep + "/secret", false) != 1) ++wrong;
        if (m->Match(deep + "/ok", false) != 0) ++wrong;
        if (m->Match("/data/cache/x", false) != 1) ++wrong;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(PathMatcherTest, UnknownExcludeModeFailsWithTrace) {
  const ODFIMSettings s = TypicalSettings(3);
  orn::RefPtr<pax::IPathMatcher> m;
  EXPECT_EQ(m_factory->CreateFntreeMatcher(s, s, m.Ref()), orn::errors::kInvalidArgument);
  EXPECT_FALSE(m);
  EXPECT_TRUE(m_tracer->Contains("Unknown excludeMode 3", orn::kTraceLevelError));
}

TEST_F(PathMatcherTest, NestedAndByteAreas) {
  ODFIMSettings s;
  s.scanAreas = {Area("/srv", {Entry("*.tmp")}), Area("/srv/tmpdir"),
                 Area("/d\xff", {Entry("\xfe*")})};
  ExpectTable(*Fntree(s), {
                              {"/srv/a.tmp", false, 1},
                              {"/srv/tmpdir/a.tmp", false, 0},  // the inner area admits it
                              {"/d\xff/\xfe\x01", false, 1},
                              {"/d\xff/ok", false, 0},
                          });
}

TEST_F(PathMatcherTest, RootArea) {
  ODFIMSettings s;
  s.scanAreas = {Area("/")};
  s.globalExclusions = {Entry("/proc")};
  ExpectTable(*Fntree(s), {
                              {"/", true, 0},
                              {"/home/u", false, 0},
                              {"/proc", true, 1},
                              {"/proc/1/status", false, 1},
                              {"/procfs", true, 0},
                          });
}

TEST_F(PathMatcherTest, AreaExcludedByItsOwnName) {
  ODFIMSettings s;
  s.scanAreas = {Area("/tmp/x")};
  s.globalExclusions = {Entry("x")};
  ExpectTable(*Fntree(s), {{"/tmp/x", true, 1}, {"/tmp/x/y", false, 1}});
}

TEST_F(PathMatcherTest, NoAreasMeansNothingInScope) {
  ExpectTable(*Fntree(ODFIMSettings{}), {{"/", true, 1}, {"/etc", true, 1}});
}

TEST_F(PathMatcherTest, PrefixMatcher) {
  orn::RefPtr<pax::IPathMatcher> m;
  ASSERT_EQ(m_factory->CreatePrefixMatcher({"/a/", "/b", ""}, m.Ref()), 0);
  ExpectTable(*m, {{"/a", true, 0},
                   {"/a/x", false, 0},
                   {"/ab", false, 1},
                   {"/b/c/d", false, 0},
                   {"/c", false, 1},
                   {"", false, 1}});
  ASSERT_EQ(m_factory->CreatePrefixMatcher({"/"}, m.Ref()), 0);
  ExpectTable(*m, {{"/", true, 0}, {"/x/y", false, 0}});
}

TEST_F(PathMatcherTest, GlobMatcher) {
  orn::RefPtr<pax::IPathMatcher> m;
  ASSERT_EQ(m_factory->CreateGlobMatcher({"/etc/*.conf", "/var/**/log"}, m.Ref()), 0);
  ExpectTable(*m, {{"/etc/a.conf", false, 0},
                   {"/etc/x/a.conf", false, 1},
                   {"/var/a/b/log", false, 0},
                   {"/var/log/", true, 0},
                   {"/var/a/b/log2", false, 1}});
}

}  // namespace
}  // namespace arvo::host
