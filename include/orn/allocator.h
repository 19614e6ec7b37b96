// The host's allocator service. Objects of the module are allocated through
// it and freed through the same allocator at their last Release.
#pragma once

#include <cstddef>

#include "orn/iobject.h"

namespace orn {

class IAllocator : public IObject {
 public:
  ORN_INTERFACE_ID(0x9CCA5603);
  // Returns null when memory is exhausted. Alignment is at least
  // alignof(std::max_align_t). Thread-safe.
  virtual void* Allocate(std::size_t size) = 0;
  virtual void Free(void* p) = 0;

 protected:
  ~IAllocator() = default;
};

}  // namespace orn
