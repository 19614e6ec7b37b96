#include "host/services/path_matcher.h"

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "host/services/fntree_matcher.h"
#include "host/services/glob.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

constexpr const char* kTag = "path_matcher\t";

class PrefixMatcher final : public orn::SimpleObject<pax::IPathMatcher> {
 public:
  explicit PrefixMatcher(const std::vector<pax::NativePath>& roots) {
    for (const pax::NativePath& r : roots)
      if (!r.empty()) m_roots.emplace_back(TrimTrailingSlashes(r));
  }
  orn::result_t Match(const pax::NativePath& path, bool) const override {
    if (path.empty()) return orn::errors::kFalse;
    const bool in = std::any_of(m_roots.begin(), m_roots.end(),
                                [&](const std::string& r) { return CoversPath(r, path); });
    return in ? orn::errors::kOk : orn::errors::kFalse;
  }

 private:
  std::vector<std::string> m_roots;  // trimmed; "" is the root directory
};

class GlobMatcher final : public orn::SimpleObject<pax::IPathMatcher> {
 public:
  explicit GlobMatcher(const std::vector<pax::NativePath>& globs) {
    for (const pax::NativePath& g : globs)
      if (!g.empty()) m_globs.emplace_back(g, true);
  }
  orn::result_t Match(const pax::NativePath& path, bool) const override {
    const std::string_view p = path.size() > 1 ? TrimTrailingSlashes(path) : path;
    const bool in =
        std::any_of(m_globs.begin(), m_globs.end(), [&](const Glob& g) { return g.Match(p); });
    return in ? orn::errors::kOk : orn::errors::kFalse;
  }

 private:
  std::vector<Glob> m_globs;
};

class PathMatcherFactory final : public orn::SimpleObject<pax::IPathMatcherFactory> {
 public:
  explicit PathMatcherFactory(orn::ITracer* tracer) : m_tracer(tracer) {}

  orn::result_t CreateGlobMatcher(const std::vector<pax::NativePath>& globs,
                                  pax::IPathMatcher** matcher) override {
    return Make<GlobMatcher>(matcher, globs);
  }
  orn::result_t CreatePrefixMatcher(const std::vector<pax::NativePath>& roots,
                                    pax::IPathMatcher** matcher) override {
    return Make<PrefixMatcher>(matcher, roots);
  }
  orn::result_t CreateFntreeMatcher(const pax::settings::ScanScopeSettings& scope,
                                    const pax::settings::ExclusionSettings& exclusions,
                                    pax::IPathMatcher** matcher) override {
    if (!ORN_CHECK_BOOL(m_tracer.Get(), exclusions.excludeMode <= 2,
                        "Unknown excludeMode " << exclusions.excludeMode)) {
      if (matcher) *matcher = nullptr;
      return orn::errors::kInvalidArgument;
    }
    const orn::result_t r = Make<FntreeMatcher>(matcher, scope, exclusions);
    if (ORN_SUCCEEDED(r)) {
      ORN_TRACE(m_tracer.Get(), orn::kTraceLevelDetail)
          << kTag << "Scope matcher: " << static_cast<FntreeMatcher*>(*matcher)->AreaCount()
          << " enabled area(s) of " << scope.scanAreas.size() << ", "
          << exclusions.globalExclusions.size() << " global exclusion(s), "
          << exclusions.excludeMasks.size() << " mask(s), mode " << exclusions.excludeMode;
    }
    return r;
  }

 private:
  template <class T, class... Args>
  orn::result_t Make(pax::IPathMatcher** matcher, const Args&... args) {
    if (!matcher) return orn::errors::kInvalidArgument;
    *matcher = nullptr;
    try {
      *matcher = orn::MakeSimple<T>(args...).Detach();
      return orn::errors::kOk;
    } catch (...) {
      return orn::ExceptionToResult(m_tracer.Get(), "path_matcher\tCannot create matcher: ");
    }
  }

  orn::RefPtr<orn::ITracer> m_tracer;
};

}  // namespace

orn::result_t CreatePathMatcherFactory(orn::ITracer* tracer,
                                       orn::RefPtr<pax::IPathMatcherFactory>& out) {
  try {
    out = orn::MakeSimple<PathMatcherFactory>(tracer);
    return orn::errors::kOk;
  } catch (...) {
    return orn::ExceptionToResult(tracer, "path_matcher\t");
  }
}

}  // namespace arvo::host
