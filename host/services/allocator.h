// The host's allocator service: plain malloc/free, with a count of live
// blocks so that the host can tell a leak at shutdown.
#pragma once

#include <atomic>
#include <cstddef>

#include "orn/allocator.h"
#include "orn/simple_object.h"

namespace arvo::host {

// Thread-safe. malloc already returns blocks aligned for std::max_align_t,
// which is all the interface promises.
class Allocator final : public orn::SimpleObject<orn::IAllocator> {
 public:
  void* Allocate(std::size_t size) override;
  void Free(void* p) override;

  // Blocks allocated and not yet freed.
  std::size_t Live() const { return m_live.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::size_t> m_live{0};
};

}  // namespace arvo::host
