// Progress of a scan as seen from the host: every object the on-demand walk
// visits is put to the path matcher, so a matcher factory that wraps the real
// one and counts Match calls tells how far a scan has got, and in which area.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "orn/ref_ptr.h"
#include "orn/simple_object.h"
#include "pax/path_matcher.h"

namespace arvo::host {

// Shared by the counting matchers (writers, on the scan worker thread) and
// the progress display (reader). Thread-safe.
class ScanProgress {
 public:
  std::uint64_t Visited() const { return m_visited.load(std::memory_order_relaxed); }
  std::string CurrentArea() const;

  void CountVisit() { m_visited.fetch_add(1, std::memory_order_relaxed); }
  void SetCurrentArea(const std::string& area);

 private:
  std::atomic<std::uint64_t> m_visited{0};
  mutable std::mutex m_mutex;
  std::string m_area;  // guarded by m_mutex
};

// Forwards to `inner`; matchers made by CreateFntreeMatcher count each Match
// in `progress`. Thread-safe as far as `inner` is.
class CountingMatcherFactory final : public orn::SimpleObject<pax::IPathMatcherFactory> {
 public:
  CountingMatcherFactory(orn::RefPtr<pax::IPathMatcherFactory> inner,
                         std::shared_ptr<ScanProgress> progress)
      : m_inner(std::move(inner)), m_progress(std::move(progress)) {}

  orn::result_t CreateGlobMatcher(const std::vector<pax::NativePath>& globs,
                                  pax::IPathMatcher** matcher) override;
  orn::result_t CreatePrefixMatcher(const std::vector<pax::NativePath>& roots,
                                    pax::IPathMatcher** matcher) override;
  orn::result_t CreateFntreeMatcher(const pax::settings::ScanScopeSettings& scope,
                                    const pax::settings::ExclusionSettings& exclusions,
                                    pax::IPathMatcher** matcher) override;

 private:
  orn::RefPtr<pax::IPathMatcherFactory> m_inner;
  std::shared_ptr<ScanProgress> m_progress;
};

}  // namespace arvo::host
