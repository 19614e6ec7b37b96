#include "host/services/sha256_provider.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "host/services/file_factory.h"
#include "host/util/test_temp_dir.h"
#include "orn/simple_object.h"
#include "orn/text.h"

namespace arvo::host {
namespace {

std::string Hex(const filesystem_services::Sha256Hash& h) {
  std::string out;
  char buf[3];
  for (std::uint8_t b : h) {
    std::snprintf(buf, sizeof buf, "%02x", b);
    out += buf;
  }
  return out;
}

constexpr const char* kEmpty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* kMillionA =
    "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

// A stream that hands out its text a few bytes at a time and can fail.
class ScriptedIO final : public orn::SimpleObject<orn::IIO> {
 public:
  ScriptedIO(std::string text, std::size_t chunk, orn::result_t failAtEnd)
      : m_text(std::move(text)), m_chunk(chunk), m_failAtEnd(failAtEnd) {}
  orn::result_t Read(void* buffer, std::size_t size, std::size_t* read) override {
    if (m_pos == m_text.size() && ORN_FAILED(m_failAtEnd)) return m_failAtEnd;
    *read = std::min({size, m_chunk, m_text.size() - m_pos});
    std::memcpy(buffer, m_text.data() + m_pos, *read);
    m_pos += *read;
    return 0;
  }
  orn::result_t GetIdentity(orn::FileIdentity*) const override {
    return orn::errors::kNotSupported;
  }

 private:
  std::string m_text;
  std::size_t m_chunk;
  orn::result_t m_failAtEnd;
  std::size_t m_pos = 0;
};

class Sha256ProviderTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(CreateSha256Provider(m_sha), 0); }
  orn::RefPtr<filesystem_services::ISha256HashProvider> m_sha;
  filesystem_services::Sha256Hash m_hash{};
};

TEST_F(Sha256ProviderTest, KnownVectorsFromBuffers) {
  ASSERT_EQ(m_sha->GetHashByBuffer(nullptr, 0, m_hash), 0);
  EXPECT_EQ(Hex(m_hash), kEmpty);
  ASSERT_EQ(m_sha->GetHashByBuffer("abc", 3, m_hash), 0);
  EXPECT_EQ(Hex(m_hash), kAbc);
  EXPECT_EQ(m_sha->GetHashByBuffer(nullptr, 1, m_hash), orn::errors::kInvalidArgument);
}

TEST_F(Sha256ProviderTest, MultiBlockFileThroughFileFactory) {
  test::TempDir dir;
  const std::string path = dir.Write("million", std::string(1000000, 'a'));
  orn::RefPtr<orn::IFileFactory> files;
  ASSERT_EQ(CreateFileFactory(files), 0);
  orn::RefPtr<orn::IIO> io;
  const std::u16string wide = orn::text::NarrowToWide(path);
  ASSERT_EQ(files->CreateFile(wide.c_str(), 1, 1, 4, 0, io.Ref()), 0);
  ASSERT_EQ(m_sha->GetHashByIO(io.Get(), m_hash), 0);
  EXPECT_EQ(Hex(m_hash), kMillionA);

  ASSERT_EQ(files->CreateFile(orn::text::NarrowToWide(dir.Write("empty", "")).c_str(), 1, 1, 4, 0,
                              io.Ref()),
            0);
  ASSERT_EQ(m_sha->GetHashByIO(io.Get(), m_hash), 0);
  EXPECT_EQ(Hex(m_hash), kEmpty);
}

TEST_F(Sha256ProviderTest, ShortReadsAndReadFailures) {
  auto io = orn::MakeSimple<ScriptedIO>("abc", 1, 0);
  ASSERT_EQ(m_sha->GetHashByIO(io.Get(), m_hash), 0);
  EXPECT_EQ(Hex(m_hash), kAbc);

  m_hash = {};
  io = orn::MakeSimple<ScriptedIO>("abc", 2, orn::errors::kAccessDenied);
  EXPECT_EQ(m_sha->GetHashByIO(io.Get(), m_hash), orn::errors::kAccessDenied);
  EXPECT_EQ(m_hash, filesystem_services::Sha256Hash{});  // untouched on failure
  EXPECT_EQ(m_sha->GetHashByIO(nullptr, m_hash), orn::errors::kInvalidArgument);
}

}  // namespace
}  // namespace arvo::host
