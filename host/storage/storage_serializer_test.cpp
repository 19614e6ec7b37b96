#include "host/storage/storage_serializer.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "host/storage/memory_node.h"
#include "host/storage/persistent_storage.h"
#include "host/storage/storage_errors.h"
#include "host/util/test_temp_dir.h"
#include "orn/simple_object.h"
#include "settings/fim_settings_serial.h"

namespace arvo::host {
namespace {

using orn::serial::TypeDescriptor;
using orn::serial::Value;
using pax::settings::ODFIMSettings;
using Blob = orn::types::blob_t;

// A record type of the tests only: one number.
struct Counter {
  std::uint64_t n = 0;
};
const TypeDescriptor kCounterType{
    0x00C0FFEE,
    "Counter",
    [] { return static_cast<void*>(new Counter()); },
    [](void* p) { delete static_cast<Counter*>(p); },
    [](const void* p) { return Value::UInt(static_cast<const Counter*>(p)->n); },
    [](const Value& v, void* p) {
      if (v.kind != Value::Kind::kUInt) return false;
      static_cast<Counter*>(p)->n = v.number;
      return true;
    }};

ODFIMSettings Sample() {
  ODFIMSettings s;
  pax::settings::ScanArea a;
  a.path = "/srv/\xff\xfe";
  a.areaFlag = true;
  a.localExclusions.push_back({u"c", "*.\x80", {"keep\xc1"}, true});
  s.scanAreas = {a};
  s.excludeMasks = {"*.tmp"};
  s.ruleId = u"r\u00e9";
  s.computeContentHash = true;
  return s;
}

class StorageSerializerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(CreateStorageSerializer(m_serializer), 0); }

  orn::result_t Read(orn::Any& out) {
    return m_serializer->Deserialize(out, m_node.Get(), 0, nullptr);
  }
  void SetBytes(const Blob& b) { m_node->m_value = b; }

  orn::RefPtr<orn::IStorageSerializer2> m_serializer;
  orn::RefPtr<MemoryNode> m_node = orn::MakeSimple<MemoryNode>();
};

TEST_F(StorageSerializerTest, SettingsRoundTripThroughStorageFile) {
  test::TempDir dir;
  const std::string file = dir / "storage.dat";
  {
    orn::RefPtr<orn::IPersistentStorage> storage;
    ASSERT_EQ(CreatePersistentStorage(file, nullptr, storage), 0);
    orn::RefPtr<orn::IStorageNode> node;
    ASSERT_EQ(storage->AppendNode("PreviousSettings", node.Ref()), 0);
    const orn::Any any = orn::Any::Make(Sample());
    ASSERT_EQ(m_serializer->Serialize(any.ToAnyDescrPtr(), node.Get(), 0, nullptr), 0);
  }
  orn::RefPtr<orn::IPersistentStorage> storage;
  ASSERT_EQ(CreatePersistentStorage(file, nullptr, storage), 0);
  orn::RefPtr<orn::IStorageNode> node;
  ASSERT_EQ(storage->FindNode("PreviousSettings", node.Ref()), 0);
  orn::Any out;
  ASSERT_EQ(m_serializer->Deserialize(out, node.Get(), 0, nullptr), 0);
  ASSERT_NE(out.Get<ODFIMSettings>(), nullptr);
  EXPECT_EQ(*out.Get<ODFIMSettings>(), Sample());
}

TEST_F(StorageSerializerTest, RegistrationDecidesWhatCanBeRead) {
  const Counter c{42};
  ASSERT_EQ(m_serializer->Serialize({&kCounterType, &c}, m_node.Get(), 0, nullptr), 0);
  orn::Any out;
  EXPECT_EQ(Read(out), orn::errors::kClassNotFound);
  EXPECT_FALSE(out.IsValid());

  EXPECT_EQ(m_serializer->RegisterType(&kCounterType), 0);
  EXPECT_TRUE(ORN_SUCCEEDED(m_serializer->RegisterType(&kCounterType)));  // again: no-op
  TypeDescriptor impostor = kCounterType;
  EXPECT_EQ(m_serializer->RegisterType(&impostor), orn::errors::kAlreadyExists);
  EXPECT_EQ(m_serializer->RegisterType(nullptr), orn::errors::kInvalidArgument);

  ASSERT_EQ(Read(out), 0);
  ASSERT_EQ(out.Type(), &kCounterType);
  EXPECT_EQ(static_cast<const Counter*>(out.ToAnyDescrPtr().record)->n, 42u);
}

TEST_F(StorageSerializerTest, RefusesForeignAndMismatchedData) {
  const orn::Any any = orn::Any::Make(Sample());
  ASSERT_EQ(m_serializer->Serialize(any.ToAnyDescrPtr(), m_node.Get(), 0, nullptr), 0);
  const Blob good = m_node->m_value;
  const orn::Any keep = orn::Any::Make(ODFIMSettings{});

  Blob version = good;
  version[4] = 2;
  Blob name = good;
  name[11] = 'X';  // "ODFIMSettings" -> "OXFIMSettings"
  Blob trailing = good;
  trailing.push_back(0);
  // The same type id and name, but a tree the settings descriptor refuses.
  Blob shape(good.begin(), good.begin() + 9 + 1 + 13);
  shape.insert(shape.end(), {1, 7});
  const struct {
    Blob bytes;
    orn::result_t expected;
  } cases[] = {
      {{}, errors::kInvalidSignature},    {{'O', 'R', 'N'}, errors::kInvalidSignature},
      {version, errors::kInvalidVersion}, {name, errors::kInvalidType},
      {trailing, errors::kCorrupted},     {shape, errors::kInvalidType},
  };
  for (const auto& c : cases) {
    SetBytes(c.bytes);
    orn::Any out = keep;
    EXPECT_EQ(Read(out), c.expected);
    EXPECT_EQ(out.Get<ODFIMSettings>(), keep.Get<ODFIMSettings>());  // untouched
  }
  EXPECT_EQ(m_serializer->Serialize({}, m_node.Get(), 0, nullptr), orn::errors::kInvalidArgument);
  EXPECT_EQ(m_serializer->Serialize(any.ToAnyDescrPtr(), m_node.Get(), 1, nullptr),
            orn::errors::kInvalidArgument);
}

TEST_F(StorageSerializerTest, SurvivesTruncationAndGarbage) {
  const orn::Any any = orn::Any::Make(Sample());
  ASSERT_EQ(m_serializer->Serialize(any.ToAnyDescrPtr(), m_node.Get(), 0, nullptr), 0);
  const Blob good = m_node->m_value;
  for (std::size_t n = 0; n < good.size(); ++n) {
    SetBytes(Blob(good.begin(), good.begin() + n));
    orn::Any out;
    EXPECT_TRUE(ORN_FAILED(Read(out))) << n;
  }
  // Random corruption after the header: any answer, but a consistent one.
  std::mt19937 rng(12345);
  for (int i = 0; i < 2000; ++i) {
    Blob b = good;
    for (int k = 0; k < 3; ++k) b[9 + rng() % (b.size() - 9)] = static_cast<std::uint8_t>(rng());
    SetBytes(b);
    orn::Any out;
    const orn::result_t r = Read(out);
    EXPECT_EQ(ORN_SUCCEEDED(r), out.IsValid());
  }
}

}  // namespace
}  // namespace arvo::host
