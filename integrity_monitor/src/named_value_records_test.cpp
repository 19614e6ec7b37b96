#include "named_value_records.h"

#include <gtest/gtest.h>

namespace pax {
namespace {

using orn::serial::SerializableType;
using orn::serial::Value;

template <class T>
void ExpectRoundTrip(std::uint32_t typeId, const char* typeName) {
  const orn::serial::TypeDescriptor& d = SerializableType<T>::Get();
  EXPECT_EQ(d.typeId, typeId);
  EXPECT_STREQ(d.typeName, typeName);

  const T record{u"host", u"web-01"};
  const Value v = d.toValue(&record);
  ASSERT_EQ(v.kind, Value::Kind::kRecord);
  ASSERT_EQ(v.fields.size(), 2u);
  EXPECT_EQ(v.fields[0].first, "name");
  EXPECT_EQ(v.fields[1].first, "data");

  orn::Any any;
  any.Reset(&d, d.create());
  ASSERT_TRUE(d.fromValue(v, any.Get<T>()));
  EXPECT_EQ(*any.Get<T>(), record);

  Value wrongKind = v;
  wrongKind.fields[1].second = Value::UInt(3);
  EXPECT_FALSE(d.fromValue(wrongKind, any.Get<T>()));
  EXPECT_FALSE(d.fromValue(Value::List(), any.Get<T>()));
}

TEST(NamedValueRecordsTest, DescriptorsCarryTheirIdsNamesAndMembersInOrder) {
  ExpectRoundTrip<RuntimeField>(0xD1345CF5, "RuntimeField");
  ExpectRoundTrip<AdditionalField>(0x0EFA8E30, "AdditionalField");
}

}  // namespace
}  // namespace pax
