// Named values the product attaches to events, as serializable records.
// The integrity monitor's own events carry none; the module only makes the
// record types known to the host's serializer.
#pragma once

#include <cstdint>

#include "orn/persistent_storage.h"
#include "orn/serialization.h"
#include "orn/types.h"

namespace pax {

struct RuntimeField {
  orn::types::string16_t name;
  orn::types::string16_t data;
  bool operator==(const RuntimeField&) const = default;
};

struct AdditionalField {
  orn::types::string16_t name;
  orn::types::string16_t data;
  bool operator==(const AdditionalField&) const = default;
};

inline constexpr std::uint32_t kRuntimeFieldTypeId = 0xD1345CF5;
inline constexpr std::uint32_t kAdditionalFieldTypeId = 0x0EFA8E30;

// Registers both record types with `serializer`; returns the first failure.
orn::result_t RegisterNamedValueRecords(orn::IStorageSerializer2* serializer);

}  // namespace pax

namespace orn::serial {

template <>
struct SerializableType<pax::RuntimeField> {
  static const TypeDescriptor& Get();
};

template <>
struct SerializableType<pax::AdditionalField> {
  static const TypeDescriptor& Get();
};

}  // namespace orn::serial
