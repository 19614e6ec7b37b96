#include "host/runtime/scan_progress.h"

#include <gtest/gtest.h>

namespace arvo::host {
namespace {

// Everything under /in is in scope.
class FakeMatcher final : public orn::SimpleObject<pax::IPathMatcher> {
 public:
  orn::result_t Match(const pax::NativePath& path, bool) const override {
    return path.rfind("/in", 0) == 0 ? 0 : 1;
  }
};

class FakeFactory final : public orn::SimpleObject<pax::IPathMatcherFactory> {
 public:
  orn::result_t CreateGlobMatcher(const std::vector<pax::NativePath>&,
                                  pax::IPathMatcher** m) override {
    *m = nullptr;
    return orn::errors::kNotImplemented;
  }
  orn::result_t CreatePrefixMatcher(const std::vector<pax::NativePath>&,
                                    pax::IPathMatcher** m) override {
    *m = nullptr;
    return orn::errors::kNotImplemented;
  }
  orn::result_t CreateFntreeMatcher(const pax::settings::ScanScopeSettings&,
                                    const pax::settings::ExclusionSettings&,
                                    pax::IPathMatcher** m) override {
    *m = orn::MakeSimple<FakeMatcher>().Detach();
    return orn::errors::kOk;
  }
};

TEST(ScanProgressTest, CountsMatchesAndFollowsTheCurrentAreaWithoutChangingAnswers) {
  auto progress = std::make_shared<ScanProgress>();
  auto factory = orn::MakeSimple<CountingMatcherFactory>(
      orn::RefPtr<pax::IPathMatcherFactory>(orn::MakeSimple<FakeFactory>().Get()), progress);
  pax::settings::ScanScopeSettings scope;
  scope.scanAreas.resize(2);
  scope.scanAreas[0].path = "/in/a";
  scope.scanAreas[1].path = "/in/ab";
  orn::RefPtr<pax::IPathMatcher> matcher;
  ASSERT_EQ(factory->CreateFntreeMatcher(scope, {}, matcher.Ref()), orn::errors::kOk);

  EXPECT_EQ(matcher->Match("/in/a/x", false), 0);
  EXPECT_EQ(progress->CurrentArea(), "/in/a");
  EXPECT_EQ(matcher->Match("/in/ab/y", true), 0);  // "/in/a" is not a component prefix
  EXPECT_EQ(progress->CurrentArea(), "/in/ab");
  EXPECT_EQ(matcher->Match("/out", false), 1);
  EXPECT_EQ(progress->CurrentArea(), "/in/ab");
  EXPECT_EQ(progress->Visited(), 3u);

  orn::RefPtr<pax::IPathMatcher> glob;
  EXPECT_EQ(factory->CreateGlobMatcher({}, glob.Ref()), orn::errors::kNotImplemented);
}

}  // namespace
}  // namespace arvo::host
