#include "host/runtime/scan_progress.h"

#include <vector>

namespace arvo::host {
namespace {

bool IsAtOrUnder(const std::string& path, const std::string& root) {
  if (path.compare(0, root.size(), root) != 0) return false;
  return path.size() == root.size() || root.back() == '/' || path[root.size()] == '/';
}

// Immutable after construction; Match may run on any thread.
class CountingMatcher final : public orn::SimpleObject<pax::IPathMatcher> {
 public:
  CountingMatcher(orn::RefPtr<pax::IPathMatcher> inner, std::shared_ptr<ScanProgress> progress,
                  const pax::settings::ScanScopeSettings& scope)
      : m_inner(std::move(inner)), m_progress(std::move(progress)) {
    for (const auto& area : scope.scanAreas) m_areas.push_back(area.path);
  }

  orn::result_t Match(const pax::NativePath& path, bool isDirectory) const override {
    m_progress->CountVisit();
    NoteArea(path);
    return m_inner->Match(path, isDirectory);
  }

 private:
  // Walks run area by area, so the area changes rarely: the shared text is
  // only written when it does.
  void NoteArea(const pax::NativePath& path) const {
    const int last = m_lastArea.load(std::memory_order_relaxed);
    if (last >= 0 && IsAtOrUnder(path, m_areas[static_cast<std::size_t>(last)])) return;
    for (std::size_t i = 0; i < m_areas.size(); ++i) {
      if (IsAtOrUnder(path, m_areas[i])) {
        m_lastArea.store(static_cast<int>(i), std::memory_order_relaxed);
        m_progress->SetCurrentArea(m_areas[i]);
        return;
      }
    }
  }

  orn::RefPtr<pax::IPathMatcher> m_inner;
  std::shared_ptr<ScanProgress> m_progress;
  std::vector<std::string> m_areas;
  mutable std::atomic<int> m_lastArea{-1};
};

}  // namespace

std::string ScanProgress::CurrentArea() const {
  std::lock_guard lock(m_mutex);
  return m_area;
}

void ScanProgress::SetCurrentArea(const std::string& area) {
  std::lock_guard lock(m_mutex);
  m_area = area;
}

orn::result_t CountingMatcherFactory::CreateGlobMatcher(const std::vector<pax::NativePath>& globs,
                                                        pax::IPathMatcher** matcher) {
  return m_inner->CreateGlobMatcher(globs, matcher);
}

orn::result_t CountingMatcherFactory::CreatePrefixMatcher(const std::vector<pax::NativePath>& roots,
                                                          pax::IPathMatcher** matcher) {
  return m_inner->CreatePrefixMatcher(roots, matcher);
}

orn::result_t CountingMatcherFactory::CreateFntreeMatcher(
    const pax::settings::ScanScopeSettings& scope,
    const pax::settings::ExclusionSettings& exclusions, pax::IPathMatcher** matcher) {
  if (!matcher) return orn::errors::kInvalidArgument;
  *matcher = nullptr;
  orn::RefPtr<pax::IPathMatcher> inner;
  const orn::result_t r = m_inner->CreateFntreeMatcher(scope, exclusions, inner.Ref());
  if (ORN_FAILED(r)) return r;
  try {
    *matcher = orn::MakeSimple<CountingMatcher>(std::move(inner), m_progress, scope).Detach();
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
  return r;
}

}  // namespace arvo::host
