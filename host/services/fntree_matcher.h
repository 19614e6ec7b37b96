// The scan-scope matcher made by CreateFntreeMatcher; its semantics are
// documented in host/path_matcher.h.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/services/glob.h"
#include "orn/simple_object.h"
#include "pax/path_matcher.h"

namespace arvo::host {

// The path without its trailing '/' characters; "/" (or "//") becomes "",
// the representation of the root directory.
std::string_view TrimTrailingSlashes(std::string_view path);

// True when trimmed `path` equals trimmed `root` or lies under it.
bool CoversPath(std::string_view root, std::string_view path);

class FntreeMatcher final : public orn::SimpleObject<pax::IPathMatcher> {
 public:
  // Throws std::invalid_argument for an excludeMode outside 0..2.
  FntreeMatcher(const pax::settings::ScanScopeSettings& scope,
                const pax::settings::ExclusionSettings& exclusions);

  orn::result_t Match(const pax::NativePath& path, bool isDirectory) const override;

  std::size_t AreaCount() const { return m_areas.size(); }

  // One member of an object's chain (the object and its ancestors up to
  // the area root); views into the queried path.
  struct Member {
    std::string_view path;
    std::string_view relative;  // below the area root; empty for the root
    std::string_view name;
    std::size_t depth;     // '/' characters in path
    std::size_t relDepth;  // '/' characters in relative
    bool isDirectory;
  };

  // A pattern or exception of an exclusion entry, compiled.
  class ChainPattern {
   public:
    explicit ChainPattern(std::string_view pattern);
    bool Matches(const Member& m) const;

   private:
    enum class Anchor { kName, kAbsolute, kRelative };
    // The pattern without the trailing '/' that makes it directory-only.
    static std::string_view Strip(std::string_view pattern);
    static Anchor AnchorOf(std::string_view stripped);
    Anchor m_anchor;
    bool m_dirOnly;
    bool m_anyDepth;  // has "**": the member's depth cannot be predicted
    std::size_t m_slashes;
    Glob m_glob;
  };

 private:
  struct Rule {
    ChainPattern pattern;
    std::vector<ChainPattern> exceptions;
  };
  struct Area {
    std::string root;  // trimmed; "" is the root directory
    std::size_t rootDepth;
    std::vector<Rule> local;
  };

  static void AddRules(const std::vector<pax::settings::ExclusionEntry>& entries,
                       std::vector<Rule>& rules);
  bool Excluded(const Area& area, std::string_view path, bool isDirectory) const;
  bool MaskExcludes(const std::vector<Member>& chain) const;

  std::vector<Area> m_areas;
  std::vector<Rule> m_global;
  pax::settings::ExcludeMode m_mode;
  std::vector<Glob> m_masks;
};

}  // namespace arvo::host
