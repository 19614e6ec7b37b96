#include "area_resolver.h"

#include <cerrno>
#include <string>

#include "orn/ref_ptr.h"
#include "orn/text.h"
#include "pax_common/beneath.h"
#include "pax_common/tools_03.h"

namespace pax::fim {
namespace {

// A path that no longer resolves without a link (or whose directory was
// replaced by a file) reads as a vanished object.
template <class T>
T Vanished(T answer) {
  if (answer == -1 && (errno == ELOOP || errno == EXDEV || errno == ENOTDIR)) errno = ENOENT;
  return answer;
}

}  // namespace

bool AreaResolver::Locate(const NativePath& path, Location& where) const {
  std::string_view relative;
  if (!m_walker || !m_walker->BelowRoot(path, relative)) return false;
  std::string_view name;
  const int dirFd = m_walker->DirectoryFd();
  if (dirFd >= 0 && RelativeBelow(m_walker->Directory(), path, name) &&
      name.find('/') == std::string_view::npos) {
    where = {dirFd, name};
  } else {
    where = {m_walker->RootFd(), relative};
  }
  return true;
}

int AreaResolver::LStat(const NativePath& path, struct stat* st) const {
  Location where;
  if (!Locate(path, where)) return tools::LStatFile(path, st);
  return Vanished(tools::LStatBeneath(where.dirFd, where.relative, *st));
}

int AreaResolver::LStatX(const NativePath& path, tools::ObjectStatus& status) const {
  Location where;
  if (!Locate(path, where)) {
    const result_t r = tools::LStatX(path, status);
    if (ORN_SUCCEEDED(r)) return 0;
    // The failing call's errno, as LStatFile reports it.
    if (r == orn::errors::kOutOfMemory) errno = ENOMEM;
    if (const int err = orn::ErrnoFromResult(r); err != 0) errno = err;
    return -1;
  }
  return Vanished(tools::LStatXBeneath(where.dirFd, where.relative, status));
}

ssize_t AreaResolver::LGetXattr(const NativePath& path, const char* name, void* value,
                                std::size_t size) const {
  Location where;
  if (!Locate(path, where)) return tools::LGetXattr(path, name, value, size);
  return Vanished(tools::LGetXattrBeneath(where.dirFd, where.relative, name, value, size));
}

bool AreaResolver::OnPseudoFileSystem(const NativePath& path) const {
  Location where;
  bool pseudo = false;
  if (!Locate(path, where)) return ORN_SUCCEEDED(tools::IsPseudoFileSystem(path, pseudo)) && pseudo;
  struct statfs fs {};
  return tools::StatFsBeneath(where.dirFd, where.relative, fs) == 0 &&
         tools::IsPseudoFileSystemMagic(static_cast<std::uint64_t>(fs.f_type));
}

result_t AreaResolver::OpenFile(const OnDemandContext& context, const NativePath& path,
                                orn::IIO** io) const {
  const std::uint32_t read = orn::file::kAccessRead;
  const std::uint32_t share = orn::file::kShareRead;
  const std::uint32_t existing = orn::file::kOpenExisting;
  Location where;
  const bool located = Locate(path, where);
  if (located && context.fileFactoryAt) {
    const orn::types::string16_t relative = orn::text::NarrowToWide(std::string(where.relative));
    return context.fileFactoryAt->CreateFileAt(where.dirFd, relative.c_str(), read, share, existing,
                                               0, io);
  }
  const orn::types::string16_t wide = orn::text::NarrowToWide(path);
  const result_t opened =
      context.fileFactory->CreateFile(wide.c_str(), read, share, existing, 0, io);
  if (!located || ORN_FAILED(opened)) return opened;
  // Opened by path: the stream counts only if it reads the object that lies
  // beneath the walk's directory, not one a swapped-in link leads to.
  orn::RefPtr<orn::IIO> stream = orn::RefPtr<orn::IIO>::Adopt(*io);
  *io = nullptr;
  orn::FileIdentity identity;
  struct stat st {};
  if (const result_t r = stream->GetIdentity(&identity); ORN_FAILED(r)) return r;
  if (tools::LStatBeneath(where.dirFd, where.relative, st) != 0 || st.st_dev != identity.dev ||
      st.st_ino != identity.ino)
    return orn::ResultFromErrno(ENOENT);
  *io = stream.Detach();
  return orn::errors::kOk;
}

const AreaResolver& ResolverOf(const OnDemandContext& context) {
  static const AreaResolver kAsGiven;
  return context.resolver ? *context.resolver : kAsGiven;
}

}  // namespace pax::fim
