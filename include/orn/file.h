// The host's file factory and the read stream it opens.
#pragma once

#include <cstddef>
#include <cstdint>

#include "orn/iobject.h"
#include "orn/service_locator.h"
#include "orn/types.h"

namespace orn {

// Service key under which the locator serves the native file factory.
inline constexpr service_key_t NfioFileFactoryCLSID = 0x4E46494F;  // "NFIO"

namespace file {
inline constexpr std::uint32_t kAccessRead = 1;
inline constexpr std::uint32_t kShareRead = 1;
inline constexpr std::uint32_t kOpenExisting = 4;
}  // namespace file

// Identity of an open file, as fstat reports it.
struct FileIdentity {
  std::uint64_t dev = 0;
  std::uint64_t ino = 0;
  std::uint32_t mode = 0;
  std::int64_t size = 0;
  std::int64_t mtimeSec = 0;
  std::int64_t mtimeNsec = 0;
  std::int64_t ctimeSec = 0;
  std::int64_t ctimeNsec = 0;
};

// Interface id chosen by this project. One user at a time.
class IIO : public IObject {
 public:
  ORN_INTERFACE_ID(0x1D0F5A22);
  // Reads up to `size` bytes at the current position; *read = 0 at the end.
  virtual result_t Read(void* buffer, std::size_t size, std::size_t* read) = 0;
  virtual result_t GetIdentity(FileIdentity* identity) const = 0;

 protected:
  ~IIO() = default;
};

// Interface id chosen by this project. Thread-safe.
class IFileFactory : public IObject {
 public:
  ORN_INTERFACE_ID(0x52C4E0B7);
  // Opens `path` (UTF-16, converted losslessly with orn/text.h). Read-only
  // opens never follow a final symbolic link and never block on FIFOs or
  // devices, do not update the access time where the kernel allows, and are
  // closed on exec. flagsAndAttributes is 0. A caller that took the object's
  // status before opening compares it with IIO::GetIdentity to detect a file
  // replaced in between.
  virtual result_t CreateFile(const char16_t* path, std::uint32_t accessMask,
                              std::uint32_t shareMode, std::uint32_t disposition,
                              std::uint32_t flagsAndAttributes, IIO** io) = 0;

 protected:
  ~IFileFactory() = default;
};

// Interface id chosen by this project. Thread-safe. Offered by the object
// that offers IFileFactory (found with QueryInterface on it) when the host
// can open files beneath a directory; a host without it still serves
// IFileFactory alone.
class IFileFactoryAt : public IObject {
 public:
  ORN_INTERFACE_ID(0x52C4E0B8);
  // Opens `relativePath` beneath the open directory `directoryFd` as
  // CreateFile opens a path, except that no component of it is resolved
  // through a symbolic link (the ELOOP result) and it cannot leave the
  // directory (absolute, or ".." past it: the EXDEV result). The caller keeps
  // `directoryFd` open for the call; the stream does not need it afterwards.
  virtual result_t CreateFileAt(int directoryFd, const char16_t* relativePath,
                                std::uint32_t accessMask, std::uint32_t shareMode,
                                std::uint32_t disposition, std::uint32_t flagsAndAttributes,
                                IIO** io) = 0;

 protected:
  ~IFileFactoryAt() = default;
};

}  // namespace orn
