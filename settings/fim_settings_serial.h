// Serialization descriptor of the on-demand task's settings record, the form
// in which the record is kept in persistent storage between runs.
//
// The value tree is a record with one field per member, named as the member
// and in member order: texts (UTF-16) as Text, paths and patterns (bytes)
// as Bytes, sequences as List, nested records as Record, flags and
// excludeMode as UInt (flags 0 or 1). FromValue accepts exactly that shape
// (extra fields are ignored) and refuses a missing field, a field of the
// wrong kind and a flag other than 0 or 1.
#pragma once

#include "orn/serialization.h"
#include "pax/settings/fim_settings.h"

namespace orn::serial {

template <>
struct SerializableType<pax::settings::ODFIMSettings> {
  // Type id pax::settings::kODFIMSettingsTypeId, type name "ODFIMSettings".
  static const TypeDescriptor& Get();
};

}  // namespace orn::serial
