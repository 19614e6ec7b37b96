#include "host/storage/value_codec.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace arvo::host {
namespace {

using orn::serial::Value;
using Bytes = std::vector<std::uint8_t>;

Bytes Encode(const Value& v) {
  Bytes out;
  ByteWriter w(out);
  EncodeValue(v, w);
  return out;
}

bool Decode(const Bytes& in, Value& v) {
  ByteReader r(in.data(), in.size());
  return DecodeValue(r, v) && r.Remaining() == 0;
}

TEST(ValueCodecTest, RoundTripsEveryKind) {
  Value rec = Value::Record();
  rec.fields.emplace_back("", Value());
  rec.fields.emplace_back("max", Value::UInt(UINT64_MAX));
  rec.fields.emplace_back("bytes", Value::Bytes(std::string("\0\xff\x80", 3)));
  rec.fields.emplace_back("text", Value::Text(u"\xd800 lone, \U0001F600 pair"));
  Value list = Value::List();
  list.items = {Value::UInt(0), Value::UInt(128), Value::List(), Value::Record(), rec};
  rec.fields.emplace_back("list", list);

  for (const Value& v : {Value(), Value::Bytes(""), Value::Text(u""), list, rec}) {
    Value back;
    ASSERT_TRUE(Decode(Encode(v), back));
    EXPECT_EQ(back, v);
  }
}

TEST(ValueCodecTest, RefusesEveryTruncation) {
  Value rec = Value::Record();
  rec.fields.emplace_back("a", Value::Text(u"xyz"));
  rec.fields.emplace_back("b", Value::UInt(300));
  const Bytes full = Encode(rec);
  for (std::size_t n = 0; n < full.size(); ++n) {
    Value v;
    EXPECT_FALSE(Decode(Bytes(full.begin(), full.begin() + n), v)) << n;
  }
}

TEST(ValueCodecTest, RefusesHostileShapes) {
  Bytes deep;
  for (int i = 0; i <= kMaxValueDepth + 1; ++i) deep.insert(deep.end(), {4, 1});  // list of one
  deep.push_back(0);
  const Bytes cases[] = {
      deep,
      {4, 0xff, 0xff, 0xff, 0xff, 0x0f},  // list of 4G items, no bytes
      {3, 0x03, 'a', 0, 'b'},             // text cut inside a unit
      {2, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x02},  // length beyond 64 bits
      {1, 0x80},                                                        // unterminated number
      {9},                                                              // unknown kind
  };
  for (const Bytes& b : cases) {
    Value v;
    EXPECT_FALSE(Decode(b, v));
  }
}

}  // namespace
}  // namespace arvo::host
