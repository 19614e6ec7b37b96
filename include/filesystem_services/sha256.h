// The host's SHA-256 service.
#pragma once

#include <array>
#include <cstdint>

#include "orn/file.h"
#include "orn/iobject.h"

namespace filesystem_services {

using Sha256Hash = std::array<std::uint8_t, 32>;

// Interface id chosen by this project. Thread-safe.
class ISha256HashProvider : public orn::IObject {
 public:
  ORN_INTERFACE_ID(0x5A256D1E);
  // Digest of the whole stream from its current position to its end.
  virtual orn::result_t GetHashByIO(orn::IIO* io, Sha256Hash& hash) = 0;
  virtual orn::result_t GetHashByBuffer(const void* data, std::size_t size, Sha256Hash& hash) = 0;

 protected:
  ~ISha256HashProvider() = default;
};

}  // namespace filesystem_services
