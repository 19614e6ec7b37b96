// Serializable records, the type-erased holder that carries them, and the
// value tree through which a serializer reads and writes them.
//
// A record type T provides a SerializableType<T> descriptor: its type id, its
// type name and two functions between the record and a Value tree. The
// serializer (a host service) turns a Value tree into bytes of its own
// format; it never needs the record's C++ layout.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orn/types.h"

namespace orn::serial {

struct Value {
  enum class Kind : std::uint8_t { kNull, kUInt, kBytes, kText16, kList, kRecord };
  Kind kind = Kind::kNull;
  std::uint64_t number = 0;                           // kUInt
  types::string8_t bytes;                             // kBytes
  types::string16_t text;                             // kText16
  std::vector<Value> items;                           // kList
  std::vector<std::pair<std::string, Value>> fields;  // kRecord, in order

  static Value UInt(std::uint64_t v) {
    Value r;
    r.kind = Kind::kUInt;
    r.number = v;
    return r;
  }
  static Value Bytes(types::string8_t v) {
    Value r;
    r.kind = Kind::kBytes;
    r.bytes = std::move(v);
    return r;
  }
  static Value Text(types::string16_t v) {
    Value r;
    r.kind = Kind::kText16;
    r.text = std::move(v);
    return r;
  }
  static Value List() {
    Value r;
    r.kind = Kind::kList;
    return r;
  }
  static Value Record() {
    Value r;
    r.kind = Kind::kRecord;
    return r;
  }
  // Field of a record by name, or null.
  const Value* Field(const std::string& name) const {
    for (const auto& [n, v] : fields)
      if (n == name) return &v;
    return nullptr;
  }
  bool operator==(const Value&) const = default;
};

// Descriptor of one serializable record type. FromValue returns false when
// the tree does not describe a record of this type.
struct TypeDescriptor {
  std::uint32_t typeId;
  const char* typeName;
  void* (*create)();
  void (*destroy)(void*);
  Value (*toValue)(const void* record);
  bool (*fromValue)(const Value& value, void* record);
};

// Specialised by each serializable record type:
//   template <> struct SerializableType<T> { static const TypeDescriptor& Get(); };
template <class T>
struct SerializableType;

// Non-owning view of a record with its descriptor.
struct AnyDescr {
  const TypeDescriptor* type = nullptr;
  const void* record = nullptr;
};

}  // namespace orn::serial

namespace orn {

// Owning type-erased holder of one serializable record.
class Any {
 public:
  Any() = default;
  template <class T>
  static Any Make(const T& value) {
    const serial::TypeDescriptor& d = serial::SerializableType<T>::Get();
    Any a;
    a.Reset(&d, new T(value));
    return a;
  }
  // Takes ownership of `record`, created by type->create.
  void Reset(const serial::TypeDescriptor* type, void* record) {
    m_type = type;
    m_record = std::shared_ptr<void>(
        record, type ? type->destroy : [](void*) {});
  }
  bool IsValid() const { return m_type != nullptr && m_record != nullptr; }
  std::uint32_t TypeId() const { return m_type ? m_type->typeId : 0; }
  const serial::TypeDescriptor* Type() const { return m_type; }
  // The record when it is of type T, else null.
  template <class T>
  T* Get() const {
    if (!IsValid() || m_type->typeId != serial::SerializableType<T>::Get().typeId) return nullptr;
    return static_cast<T*>(m_record.get());
  }
  serial::AnyDescr ToAnyDescrPtr() const { return {m_type, m_record.get()}; }

 private:
  const serial::TypeDescriptor* m_type = nullptr;
  std::shared_ptr<void> m_record;
};

}  // namespace orn
