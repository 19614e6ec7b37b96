#include "named_value_records.h"

namespace {

// Both records have the same two members, "name" then "data".
template <class T>
struct NamedValueCodec {
  static void* Create() { return new T(); }
  static void Destroy(void* record) { delete static_cast<T*>(record); }

  static orn::serial::Value ToValue(const void* record) {
    const T& r = *static_cast<const T*>(record);
    orn::serial::Value v = orn::serial::Value::Record();
    v.fields.emplace_back("name", orn::serial::Value::Text(r.name));
    v.fields.emplace_back("data", orn::serial::Value::Text(r.data));
    return v;
  }

  static bool FromValue(const orn::serial::Value& value, void* record) {
    using Kind = orn::serial::Value::Kind;
    if (value.kind != Kind::kRecord) return false;
    const orn::serial::Value* name = value.Field("name");
    const orn::serial::Value* data = value.Field("data");
    if (!name || !data || name->kind != Kind::kText16 || data->kind != Kind::kText16) return false;
    T& r = *static_cast<T*>(record);
    r.name = name->text;
    r.data = data->text;
    return true;
  }

  static orn::serial::TypeDescriptor Descriptor(std::uint32_t typeId, const char* typeName) {
    return {typeId, typeName, &Create, &Destroy, &ToValue, &FromValue};
  }
};

}  // namespace

namespace orn::serial {

const TypeDescriptor& SerializableType<pax::RuntimeField>::Get() {
  static const TypeDescriptor descriptor =
      NamedValueCodec<pax::RuntimeField>::Descriptor(pax::kRuntimeFieldTypeId, "RuntimeField");
  return descriptor;
}

const TypeDescriptor& SerializableType<pax::AdditionalField>::Get() {
  static const TypeDescriptor descriptor = NamedValueCodec<pax::AdditionalField>::Descriptor(
      pax::kAdditionalFieldTypeId, "AdditionalField");
  return descriptor;
}

}  // namespace orn::serial

namespace pax {

orn::result_t RegisterNamedValueRecords(orn::IStorageSerializer2* serializer) {
  if (!serializer) return orn::errors::kInvalidArgument;
  const orn::result_t r =
      serializer->RegisterType(&orn::serial::SerializableType<RuntimeField>::Get());
  if (ORN_FAILED(r)) return r;
  return serializer->RegisterType(&orn::serial::SerializableType<AdditionalField>::Get());
}

}  // namespace pax
