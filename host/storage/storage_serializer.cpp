#include "host/storage/storage_serializer.h"

#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <utility>

#include "framework/exceptions.h"
#include "host/storage/byte_codec.h"
#include "host/storage/storage_errors.h"
#include "host/storage/value_codec.h"
#include "orn/simple_object.h"
#include "settings/fim_settings_serial.h"

namespace arvo::host {
namespace {

constexpr char kMagic[4] = {'O', 'R', 'N', 'S'};
constexpr std::uint8_t kVersion = 1;

using orn::serial::TypeDescriptor;

// Owner of a record made by a descriptor until an orn::Any takes it.
class RecordHolder {
 public:
  explicit RecordHolder(const TypeDescriptor& type) : m_type(type), m_record(type.create()) {}
  ~RecordHolder() {
    if (m_record) m_type.destroy(m_record);
  }
  RecordHolder(const RecordHolder&) = delete;
  RecordHolder& operator=(const RecordHolder&) = delete;
  void* Get() const { return m_record; }
  void* Release() { return std::exchange(m_record, nullptr); }

 private:
  const TypeDescriptor& m_type;
  void* m_record;
};

class StorageSerializer final : public orn::SimpleObject<orn::IStorageSerializer2> {
 public:
  orn::result_t RegisterType(const TypeDescriptor* type) override {
    if (!type || !type->typeName || !type->create || !type->destroy || !type->toValue ||
        !type->fromValue)
      return orn::errors::kInvalidArgument;
    const std::unique_lock lock(m_mutex);
    const auto [it, added] = m_types.emplace(type->typeId, type);
    if (added) return orn::errors::kOk;
    return it->second == type ? orn::errors::kFalse : orn::errors::kAlreadyExists;
  }

  orn::result_t Serialize(orn::serial::AnyDescr record, orn::IStorageNode* node,
                          std::uint32_t flags, void* reserved) override {
    if (!record.type || !record.record || !record.type->toValue || !record.type->typeName ||
        !node || flags != 0 || reserved)
      return orn::errors::kInvalidArgument;
    try {
      orn::types::blob_t blob;
      ByteWriter w(blob);
      w.Raw(kMagic, sizeof kMagic);
      w.U8(kVersion);
      w.U32(record.type->typeId);
      w.Sized(record.type->typeName, std::strlen(record.type->typeName));
      EncodeValue(record.type->toValue(record.record), w);
      return node->SetValue(blob);
    } catch (...) {
      return orn::ExceptionToResult(nullptr, "serializer\t");
    }
  }

  orn::result_t Deserialize(orn::Any& out, orn::IStorageNode* node, std::uint32_t flags,
                            void* reserved) override {
    if (!node || flags != 0 || reserved) return orn::errors::kInvalidArgument;
    try {
      orn::types::blob_t blob;
      if (const orn::result_t r = node->GetValue(blob); ORN_FAILED(r)) return r;
      return Decode(blob, out);
    } catch (...) {
      return orn::ExceptionToResult(nullptr, "serializer\t");
    }
  }

 private:
  const TypeDescriptor* Lookup(std::uint32_t typeId) const {
    const std::shared_lock lock(m_mutex);
    const auto it = m_types.find(typeId);
    return it == m_types.end() ? nullptr : it->second;
  }

  orn::result_t Decode(const orn::types::blob_t& blob, orn::Any& out) const {
    ByteReader r(blob.data(), blob.size());
    const std::uint8_t* magic = nullptr;
    if (!r.Raw(sizeof kMagic, magic) || std::memcmp(magic, kMagic, sizeof kMagic) != 0)
      return errors::kInvalidSignature;
    std::uint8_t version = 0;
    std::uint32_t typeId = 0;
    std::string_view typeName;
    if (!r.U8(version)) return errors::kCorrupted;
    if (version != kVersion) return errors::kInvalidVersion;
    if (!r.U32(typeId) || !r.Sized(typeName)) return errors::kCorrupted;
    const TypeDescriptor* type = Lookup(typeId);
    if (!type) return orn::errors::kClassNotFound;
    if (typeName != type->typeName) return errors::kInvalidType;
    orn::serial::Value value;
    if (!DecodeValue(r, value) || r.Remaining() != 0) return errors::kCorrupted;
    RecordHolder record(*type);
    if (!record.Get()) return orn::errors::kOutOfMemory;
    if (!type->fromValue(value, record.Get())) return errors::kInvalidType;
    out.Reset(type, record.Release());
    return orn::errors::kOk;
  }

  mutable std::shared_mutex m_mutex;
  std::map<std::uint32_t, const TypeDescriptor*> m_types;  // guarded by m_mutex
};

}  // namespace

orn::result_t CreateStorageSerializer(orn::RefPtr<orn::IStorageSerializer2>& out) {
  try {
    auto serializer = orn::MakeSimple<StorageSerializer>();
    const orn::result_t r = serializer->RegisterType(
        &orn::serial::SerializableType<pax::settings::ODFIMSettings>::Get());
    if (ORN_FAILED(r)) return r;
    out = std::move(serializer);
    return orn::errors::kOk;
  } catch (...) {
    return orn::ExceptionToResult(nullptr, "serializer\t");
  }
}

}  // namespace arvo::host
