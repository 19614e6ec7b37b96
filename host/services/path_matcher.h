// The host's path matcher factory (pax::IPathMatcherFactory).
//
// Paths are byte strings and are compared as given, except that trailing
// '/' characters are ignored (on area paths, roots and queried paths alike;
// "/" stays "/"). Patterns use the shell glob syntax of host/glob.h.
//
// CreatePrefixMatcher(roots): in scope when the path equals a root or lies
// under it, component-wise ("/etc" covers "/etc" and "/etc/x", not "/etcx").
//
// CreateGlobMatcher(globs): in scope when a glob matches the whole path in
// pathname mode ('*' stays within one component, "**" spans components).
//
// CreateFntreeMatcher(scope, exclusions): in scope when some enabled scan
// area covers the path (component-wise, as a prefix root) and the path is
// not excluded for that area; when areas nest, one admitting area suffices.
//   - Scan areas: `areaFlag == false` disables an area; an area with an
//     empty path covers nothing; `areaName` is not interpreted.
//   - Exclusion entries: `globalExclusions` apply under every area, an
//     area's `localExclusions` only under that area. Entries with
//     `enabled == false` or an empty pattern are ignored; `comment` is not
//     interpreted.
//   - The chain of an object is the object itself and its ancestors up to
//     and including the area root (the root "/" has no name and is left
//     out). An entry excludes the object when its pattern matches some
//     member of the chain and none of its `exceptions` matches any member
//     of the chain. So a pattern that matches a directory excludes its whole
//     subtree, and an exception re-includes the subtree of what it matches
//     (an exception naming "/var/cache/keep" keeps that subtree although
//     "/var/cache" is excluded; "/var/cache" itself stays excluded, so a
//     walker must not prune on a directory's answer alone where such
//     exceptions exist).
//   - How a pattern (or exception) matches a member of the chain:
//       * a trailing '/' restricts it to directories ("build/"); every
//         ancestor is a directory, the object itself is one when the caller
//         says so;
//       * without '/' it matches the member's file name (last component);
//       * beginning with '/' it matches the member's whole path;
//       * with a '/' elsewhere it matches the member's path relative to the
//         area root ("build/*.o" under area "/src" matches "/src/build/x.o");
//       * path patterns use pathname mode ("**" spans components).
//   - Exclusion masks (`excludeMasks`) are file-name globs applied per
//     `excludeMode`: 0 masks off; 1 a mask excludes a non-directory whose
//     name matches; 2 a mask excludes any member of the chain whose name
//     matches (a matching directory excludes its subtree). Any other mode
//     makes creation fail with errors::kInvalidArgument.
//
// Matchers are immutable and thread-safe. Match answers 0 (in scope) or 1
// (outside) and never fails; an empty path is outside. Match allocates
// nothing once its per-thread scratch has grown to the deepest path seen.
#pragma once

#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/path_matcher.h"

namespace arvo::host {

// `tracer` may be null. The factory is thread-safe.
orn::result_t CreatePathMatcherFactory(orn::ITracer* tracer,
                                       orn::RefPtr<pax::IPathMatcherFactory>& out);

}  // namespace arvo::host
