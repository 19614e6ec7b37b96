// The root of the binary interface between the module and its host.
//
// Every interface derives from IObject, whose three virtual operations occupy
// the first three vtable slots in this order: AddRef, Release,
// QueryInterface. Interfaces have no virtual destructor: objects are destroyed
// by their last Release, never by delete through an interface pointer.
//
// Each interface names its identifier with ORN_INTERFACE_ID; orn::IidOf<T>
// reads it. Identifiers are part of the binary contract and never change.
#pragma once

#include <cstdint>

#include "orn/result.h"

namespace orn {

using iid_t = std::uint32_t;
using clsid_t = std::uint32_t;

#define ORN_INTERFACE_ID(value) static constexpr ::orn::iid_t kIid = (value)

class IObject {
 public:
  ORN_INTERFACE_ID(0x00000000);
  // Returns the new count. Thread-safe.
  virtual std::uint32_t AddRef() = 0;
  // Returns the new count; the object is destroyed when it reaches 0.
  virtual std::uint32_t Release() = 0;
  // On success stores an added reference in *out; on failure stores null and
  // returns errors::kNoInterface.
  virtual result_t QueryInterface(iid_t iid, void** out) = 0;

 protected:
  ~IObject() = default;
};

template <class T>
constexpr iid_t IidOf() {
  return T::kIid;
}

class IServiceLocator;

// Class factory: the fourth slot creates an instance bound to a locator.
class IObjectFactory : public IObject {
 public:
  ORN_INTERFACE_ID(0x80077A33);
  virtual result_t CreateInstance(IServiceLocator* locator, iid_t iid, void** out) = 0;

 protected:
  ~IObjectFactory() = default;
};

}  // namespace orn
