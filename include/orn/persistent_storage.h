// The host's persistent storage (named nodes that survive restarts) and its
// structure serializer.
#pragma once

#include <cstdint>

#include "orn/iobject.h"
#include "orn/serialization.h"
#include "orn/types.h"

namespace orn {

// One named node: an opaque byte value. Interface id chosen by this project.
class IStorageNode : public IObject {
 public:
  ORN_INTERFACE_ID(0x0DE5A7B1);
  virtual result_t GetName(types::string8_t& name) const = 0;
  virtual result_t GetValue(types::blob_t& value) const = 0;
  // Durable when it returns 0: a crash never leaves a torn value.
  virtual result_t SetValue(const types::blob_t& value) = 0;

 protected:
  ~IStorageNode() = default;
};

// Interface id chosen by this project. Thread-safe.
class IPersistentStorage : public IObject {
 public:
  ORN_INTERFACE_ID(0x7E57A9E0);
  // First node named `name`; errors::kNotFound when none.
  virtual result_t FindNode(const types::string8_t& name, IStorageNode** node) = 0;
  // Appends a new, empty node named `name` (names need not be unique).
  virtual result_t AppendNode(const types::string8_t& name, IStorageNode** node) = 0;
  // Removes the first node named `name`; errors::kNotFound when none.
  virtual result_t RemoveNode(const types::string8_t& name) = 0;

 protected:
  ~IPersistentStorage() = default;
};

// Interface id chosen by this project. Thread-safe.
class IStorageSerializer2 : public IObject {
 public:
  ORN_INTERFACE_ID(0x5E12A11F);
  // Makes `type` known for Deserialize. Registering a type id twice with the
  // same descriptor is a no-op; flags and reserved are 0 and null.
  virtual result_t RegisterType(const serial::TypeDescriptor* type) = 0;
  // Writes the record and its type id into `node`.
  virtual result_t Serialize(serial::AnyDescr record, IStorageNode* node, std::uint32_t flags,
                             void* reserved) = 0;
  // Reads a record of a registered type from `node` into `out`.
  virtual result_t Deserialize(Any& out, IStorageNode* node, std::uint32_t flags,
                               void* reserved) = 0;

 protected:
  ~IStorageSerializer2() = default;
};

}  // namespace orn
