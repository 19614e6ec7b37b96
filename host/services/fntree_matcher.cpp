#include "host/services/fntree_matcher.h"

#include <algorithm>
#include <stdexcept>

namespace arvo::host {
namespace {

std::size_t CountSlashes(std::string_view s) {
  return static_cast<std::size_t>(std::count(s.begin(), s.end(), '/'));
}

// Calls fn(member) for the chain of `path` (trimmed, covered by `root`),
// from the root down; stops at the first true. Members without a name (the
// root directory, the gap of a doubled '/') are skipped.
template <class Fn>
bool AnyMember(std::string_view root, std::size_t rootDepth, std::string_view path,
               bool isDirectory, Fn&& fn) {
  const std::size_t rootLen = root.size();
  std::size_t end = rootLen;
  std::size_t nameStart = rootLen == 0 ? 0 : root.rfind('/') + 1;
  std::size_t depth = rootDepth;
  while (true) {
    if (end > nameStart) {
      FntreeMatcher::Member m;
      m.path = path.substr(0, end);
      m.relative = end > rootLen ? path.substr(rootLen + 1, end - rootLen - 1) : std::string_view();
      m.name = path.substr(nameStart, end - nameStart);
      m.depth = depth;
      m.relDepth = end > rootLen ? depth - rootDepth - 1 : 0;
      m.isDirectory = end < path.size() || isDirectory;
      if (fn(m)) return true;
    }
    if (end >= path.size()) return false;
    nameStart = end + 1;
    end = path.find('/', nameStart);
    if (end == std::string_view::npos) end = path.size();
    ++depth;
  }
}

}  // namespace

std::string_view TrimTrailingSlashes(std::string_view path) {
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  return path;
}

bool CoversPath(std::string_view root, std::string_view path) {
  root = TrimTrailingSlashes(root);
  path = TrimTrailingSlashes(path);
  if (root.empty()) return path.empty() || path.front() == '/';
  return path.starts_with(root) && (path.size() == root.size() || path[root.size()] == '/');
}

std::string_view FntreeMatcher::ChainPattern::Strip(std::string_view pattern) {
  const std::string_view trimmed = TrimTrailingSlashes(pattern);
  return trimmed.empty() ? pattern : trimmed;
}

FntreeMatcher::ChainPattern::Anchor FntreeMatcher::ChainPattern::AnchorOf(
    std::string_view stripped) {
  if (stripped.front() == '/') return Anchor::kAbsolute;
  return stripped.find('/') != std::string_view::npos ? Anchor::kRelative : Anchor::kName;
}

FntreeMatcher::ChainPattern::ChainPattern(std::string_view pattern)
    : m_anchor(AnchorOf(Strip(pattern))),
      m_dirOnly(Strip(pattern).size() < pattern.size()),
      m_anyDepth(pattern.find("**") != std::string_view::npos),
      m_slashes(CountSlashes(Strip(pattern))),
      m_glob(Strip(pattern), m_anchor != Anchor::kName) {}

bool FntreeMatcher::ChainPattern::Matches(const Member& m) const {
  if (m_dirOnly && !m.isDirectory) return false;
  switch (m_anchor) {
    case Anchor::kName:
      return m_glob.Match(m.name);
    case Anchor::kAbsolute:
      // Without "**" a path pattern spans a fixed number of components.
      return (m_anyDepth || m.depth == m_slashes) && m_glob.Match(m.path);
    case Anchor::kRelative:
      return !m.relative.empty() && (m_anyDepth || m.relDepth == m_slashes) &&
             m_glob.Match(m.relative);
  }
  return false;
}

FntreeMatcher::FntreeMatcher(const pax::settings::ScanScopeSettings& scope,
                             const pax::settings::ExclusionSettings& exclusions)
    : m_mode(static_cast<pax::settings::ExcludeMode>(exclusions.excludeMode)) {
  if (exclusions.excludeMode > 2) throw std::invalid_argument("excludeMode");
  for (const pax::settings::ScanArea& a : scope.scanAreas) {
    if (!a.areaFlag || a.path.empty()) continue;
    Area area{std::string(TrimTrailingSlashes(a.path)), 0, {}};
    area.rootDepth = CountSlashes(area.root);
    AddRules(a.localExclusions, area.local);
    m_areas.push_back(std::move(area));
  }
  AddRules(exclusions.globalExclusions, m_global);
  if (m_mode != pax::settings::ExcludeMode::kMasksOff) {
    for (const pax::NativePath& mask : exclusions.excludeMasks)
      if (!mask.empty()) m_masks.emplace_back(mask, false);
  }
}

void FntreeMatcher::AddRules(const std::vector<pax::settings::ExclusionEntry>& entries,
                             std::vector<Rule>& rules) {
  for (const pax::settings::ExclusionEntry& e : entries) {
    if (!e.enabled || e.pattern.empty()) continue;
    Rule rule{ChainPattern(e.pattern), {}};
    for (const pax::NativePath& x : e.exceptions)
      if (!x.empty()) rule.exceptions.emplace_back(x);
    rules.push_back(std::move(rule));
  }
}

orn::result_t FntreeMatcher::Match(const pax::NativePath& path, bool isDirectory) const {
  if (path.empty()) return orn::errors::kFalse;
  const std::string_view p = TrimTrailingSlashes(path);
  for (const Area& area : m_areas) {
    if (CoversPath(area.root, p) && !Excluded(area, p, isDirectory)) return orn::errors::kOk;
  }
  return orn::errors::kFalse;
}

bool FntreeMatcher::Excluded(const Area& area, std::string_view path, bool isDirectory) const {
  // The chain is built once and kept per thread, so that a match allocates
  // nothing once the vector has grown to the deepest path seen.
  thread_local std::vector<Member> chain;
  chain.clear();
  AnyMember(area.root, area.rootDepth, path, isDirectory, [](const Member& m) {
    chain.push_back(m);
    return false;
  });
  if (MaskExcludes(chain)) return true;
  const auto matches = [](const ChainPattern& pattern) {
    return std::any_of(chain.begin(), chain.end(),
                       [&](const Member& m) { return pattern.Matches(m); });
  };
  const auto excludes = [&](const Rule& rule) {
    return matches(rule.pattern) &&
           std::none_of(rule.exceptions.begin(), rule.exceptions.end(), matches);
  };
  return std::any_of(m_global.begin(), m_global.end(), excludes) ||
         std::any_of(area.local.begin(), area.local.end(), excludes);
}

bool FntreeMatcher::MaskExcludes(const std::vector<Member>& chain) const {
  if (m_masks.empty() || chain.empty()) return false;
  const auto byName = [&](const Member& m) {
    return std::any_of(m_masks.begin(), m_masks.end(),
                       [&](const Glob& g) { return g.Match(m.name); });
  };
  if (m_mode == pax::settings::ExcludeMode::kMasksFiles) {
    // Ancestors are directories: a non-directory last member is the object.
    return !chain.back().isDirectory && byName(chain.back());
  }
  return std::any_of(chain.begin(), chain.end(), byName);
}

}  // namespace arvo::host
