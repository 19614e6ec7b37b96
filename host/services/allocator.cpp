#include "host/services/allocator.h"

#include <cstdlib>

namespace arvo::host {

void* Allocator::Allocate(std::size_t size) {
  // malloc(0) may return null; callers treat null as exhaustion, so ask for
  // one byte instead.
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p) m_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void Allocator::Free(void* p) {
  if (!p) return;
  m_live.fetch_sub(1, std::memory_order_relaxed);
  std::free(p);
}

}  // namespace arvo::host
