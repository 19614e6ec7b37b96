#include "framework/object.h"

namespace orn {

std::atomic<std::uint32_t>& ModuleLock::Counter() noexcept {
  static std::atomic<std::uint32_t> counter{0};
  return counter;
}

}  // namespace orn
