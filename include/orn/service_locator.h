// Service lookup: the one way objects of the module reach host facilities.
#pragma once

#include <cstdint>

#include "orn/iobject.h"
#include "orn/ref_ptr.h"

namespace orn {

using service_key_t = std::uint32_t;

// Interface id chosen by this project (the product leaves it open).
class IServiceLocator : public IObject {
 public:
  ORN_INTERFACE_ID(0x5E41C0A7);
  // Fourth slot. key 0 names the default provider of iid. On success *out
  // holds an added reference; on failure it is null and the result says why
  // (errors::kNoInterface when nothing provides iid).
  virtual result_t GetService(iid_t iid, service_key_t key, void** out) = 0;

 protected:
  ~IServiceLocator() = default;
};

// Returning form of service lookup. Callers check the result with the
// check-and-trace helper (framework/check.h).
template <class T>
result_t GetInterface(IServiceLocator* locator, T** out, service_key_t key = 0) {
  *out = nullptr;
  if (!locator) return errors::kNoInterface;
  return locator->GetService(IidOf<T>(), key, reinterpret_cast<void**>(out));
}

}  // namespace orn
