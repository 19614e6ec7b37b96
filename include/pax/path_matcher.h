// The host's path matchers: decide whether an object lies in a task's scope.
#pragma once

#include <vector>

#include "orn/iobject.h"
#include "orn/types.h"
#include "pax/settings/fim_settings.h"

namespace pax {

// Interface id chosen by this project.
class IPathMatcher : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x7A11D3C2);
  // 0 = in scope, 1 = outside the scope; a failure is a failure (callers of
  // the module treat it as in scope). Thread-safe: the matcher is immutable.
  virtual orn::result_t Match(const NativePath& path, bool isDirectory) const = 0;

 protected:
  ~IPathMatcher() = default;
};

class IPathMatcherFactory : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x38514CF7);
  // In scope: the path matches one of the shell globs (whole path).
  virtual orn::result_t CreateGlobMatcher(const std::vector<NativePath>& globs,
                                          IPathMatcher** matcher) = 0;
  // In scope: the path equals or lies under one of the roots.
  virtual orn::result_t CreatePrefixMatcher(const std::vector<NativePath>& roots,
                                            IPathMatcher** matcher) = 0;
  // In scope: at or under a scan area of `scope` and not excluded by
  // `exclusions` (semantics documented by the host's implementation).
  virtual orn::result_t CreateFntreeMatcher(const settings::ScanScopeSettings& scope,
                                            const settings::ExclusionSettings& exclusions,
                                            IPathMatcher** matcher) = 0;

 protected:
  ~IPathMatcherFactory() = default;
};

}  // namespace pax
