// Where the snapshot builder takes each object of a walk from: status, ACL,
// file-system test and content are resolved beneath the directory the walk
// holds open (the object's own directory), or beneath the area root when that
// directory's stream was spilled (directory_walker.h), and never through a
// symbolic link below the root. A directory of the area swapped for a link
// while it is walked therefore cannot make the monitor record, hash or
// compare objects outside the area under paths inside it.
//
// An object whose path no longer resolves without a link (a directory on its
// way was replaced by one) is reported as vanished: ENOENT, as when it was
// removed. Paths that are not below the walk's root (the root itself, an area
// that is a single object) are resolved as given: the root may be reached
// through links, as an administrator configured it.
//
// A default-constructed resolver (outside a walk) resolves every path as
// given. Used on the task's worker thread only; the walker must outlive the
// resolver.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "directory_walker.h"
#include "on_demand_context.h"
#include "orn/file.h"
#include "orn/result.h"
#include "orn/types.h"
#include "pax_common/tools_03.h"

namespace pax::fim {

class AreaResolver {
 public:
  AreaResolver() = default;
  explicit AreaResolver(const DirectoryWalker& walker) : m_walker(&walker) {}

  // lstat: 0, or -1 with errno set.
  int LStat(const NativePath& path, struct stat* st) const;
  // The same taken with statx (tools::LStatX: birth time and mount id too).
  int LStatX(const NativePath& path, tools::ObjectStatus& status) const;
  // lgetxattr's answers.
  ssize_t LGetXattr(const NativePath& path, const char* name, void* value, std::size_t size) const;
  // True when the object (a final link followed, as statfs does) lies on a
  // pseudo file system; false also when that cannot be told.
  bool OnPseudoFileSystem(const NativePath& path) const;

  // Opens the object for reading through the context's file factory:
  // beneath the walk's directory with IFileFactoryAt where the host offers
  // it; otherwise by path, keeping the stream only when it reads the object
  // found beneath the walk's directory (the ENOENT result otherwise).
  [[nodiscard]] result_t OpenFile(const OnDemandContext& context, const NativePath& path,
                                  orn::IIO** io) const;

 private:
  struct Location {
    int dirFd = -1;
    std::string_view relative;
  };
  // False when `path` is not below the walk's root (resolved as given).
  bool Locate(const NativePath& path, Location& where) const;

  const DirectoryWalker* m_walker = nullptr;
};

// The context's resolver, or one that resolves paths as given.
const AreaResolver& ResolverOf(const OnDemandContext& context);

// Makes `resolver` the context's for the lifetime of this object.
class ScopedResolver {
 public:
  ScopedResolver(OnDemandContext& context, const AreaResolver& resolver) : m_context(context) {
    m_context.resolver = &resolver;
  }
  ~ScopedResolver() { m_context.resolver = nullptr; }
  ScopedResolver(const ScopedResolver&) = delete;
  ScopedResolver& operator=(const ScopedResolver&) = delete;

 private:
  OnDemandContext& m_context;
};

}  // namespace pax::fim
