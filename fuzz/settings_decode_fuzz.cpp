// Fuzzes the settings serializer's decoding. The first byte chooses the
// input's shape: 0, the bytes are a stored node's value as read back;
// 1, they follow a valid header for the on-demand settings record, so that
// the value tree and the record's own checks are reached; otherwise they are
// a bare value tree. Whatever decodes encodes back to bytes that decode to
// the same thing (the encoding is canonical after one round).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/storage/byte_codec.h"
#include "host/storage/memory_node.h"
#include "host/storage/storage_serializer.h"
#include "host/storage/value_codec.h"
#include "settings/fim_settings_serial.h"

namespace {

using Blob = orn::types::blob_t;
using pax::settings::ODFIMSettings;

Blob SettingsHeader() {
  const orn::serial::TypeDescriptor& type = orn::serial::SerializableType<ODFIMSettings>::Get();
  Blob header;
  arvo::host::ByteWriter w(header);
  w.Raw("ORNS", 4);
  w.U8(1);
  w.U32(type.typeId);
  w.Sized(type.typeName, std::strlen(type.typeName));
  return header;
}

void FuzzSerializer(Blob blob) {
  static orn::RefPtr<orn::IStorageSerializer2> serializer = [] {
    orn::RefPtr<orn::IStorageSerializer2> s;
    if (ORN_FAILED(arvo::host::CreateStorageSerializer(s))) std::abort();
    return s;
  }();
  auto node = orn::MakeSimple<arvo::host::MemoryNode>();
  node->m_value = std::move(blob);
  orn::Any record;
  if (ORN_FAILED(serializer->Deserialize(record, node.Get(), 0, nullptr))) {
    if (record.IsValid()) std::abort();  // `out` is changed only on success
    return;
  }
  const ODFIMSettings* settings = record.Get<ODFIMSettings>();
  if (!settings) std::abort();
  if (ORN_FAILED(serializer->Serialize(record.ToAnyDescrPtr(), node.Get(), 0, nullptr)))
    std::abort();
  const Blob first = node->m_value;
  orn::Any again;
  if (ORN_FAILED(serializer->Deserialize(again, node.Get(), 0, nullptr))) std::abort();
  if (!again.Get<ODFIMSettings>() || !(*again.Get<ODFIMSettings>() == *settings)) std::abort();
  if (ORN_FAILED(serializer->Serialize(again.ToAnyDescrPtr(), node.Get(), 0, nullptr)) ||
      node->m_value != first)
    std::abort();
}

void FuzzValueCodec(const std::uint8_t* data, std::size_t size) {
  arvo::host::ByteReader in(data, size);
  orn::serial::Value value;
  if (!arvo::host::DecodeValue(in, value)) return;
  std::vector<std::uint8_t> first;
  arvo::host::ByteWriter w(first);
  arvo::host::EncodeValue(value, w);
  arvo::host::ByteReader back(first.data(), first.size());
  orn::serial::Value again;
  if (!arvo::host::DecodeValue(back, again) || back.Remaining() != 0) std::abort();
  std::vector<std::uint8_t> second;
  arvo::host::ByteWriter w2(second);
  arvo::host::EncodeValue(again, w2);
  if (second != first) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  switch (data[0] % 3) {
    case 0:
      FuzzSerializer(Blob(data + 1, data + size));
      break;
    case 1: {
      Blob blob = SettingsHeader();
      blob.insert(blob.end(), data + 1, data + size);
      FuzzSerializer(std::move(blob));
      break;
    }
    default:
      FuzzValueCodec(data + 1, size - 1);
  }
  return 0;
}
