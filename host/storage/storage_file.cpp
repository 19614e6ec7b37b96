#include "host/storage/storage_file.h"

#include <openssl/evp.h>

#include <array>
#include <cstring>

#include "host/storage/byte_codec.h"
#include "host/storage/storage_errors.h"

namespace arvo::host {
namespace {

constexpr char kMagic[8] = {'A', 'R', 'V', 'O', 'S', 'T', 'O', 'R'};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHeaderSize = 8 + 4 + 4 + 8;
constexpr std::size_t kDigestSize = 32;

using Digest = std::array<std::uint8_t, kDigestSize>;

Digest Checksum(const std::uint8_t* data, std::size_t size) {
  Digest d{};
  unsigned int len = 0;
  // A failure leaves a zero digest, which no image verifies against.
  if (EVP_Digest(data, size, d.data(), &len, EVP_sha256(), nullptr) != 1) d.fill(0);
  return d;
}

}  // namespace

std::vector<std::uint8_t> EncodeStorage(const std::vector<StoredNodeView>& nodes) {
  std::vector<std::uint8_t> payload;
  ByteWriter p(payload);
  for (const StoredNodeView& n : nodes) {
    p.Sized(n.name.data(), n.name.size());
    p.Sized(n.value->data(), n.value->size());
  }
  std::vector<std::uint8_t> image;
  image.reserve(kHeaderSize + payload.size() + kDigestSize);
  ByteWriter w(image);
  w.Raw(kMagic, sizeof kMagic);
  w.U32(kVersion);
  w.U32(static_cast<std::uint32_t>(nodes.size()));
  w.U64(payload.size());
  w.Raw(payload.data(), payload.size());
  const Digest d = Checksum(image.data(), image.size());
  w.Raw(d.data(), d.size());
  return image;
}

orn::result_t DecodeStorage(const std::vector<std::uint8_t>& image, std::vector<StoredNode>& nodes,
                            std::string& why) {
  nodes.clear();
  ByteReader r(image.data(), image.size());
  const std::uint8_t* magic = nullptr;
  if (!r.Raw(sizeof kMagic, magic) || std::memcmp(magic, kMagic, sizeof kMagic) != 0) {
    why = image.empty() ? "the file is empty" : "not a storage file (bad magic)";
    return image.empty() ? errors::kCorrupted : errors::kInvalidSignature;
  }
  std::uint32_t version = 0, count = 0;
  std::uint64_t length = 0;
  if (!r.U32(version) || !r.U32(count) || !r.U64(length)) {
    why = "truncated header";
    return errors::kCorrupted;
  }
  if (version != kVersion) {
    why = "format version " + std::to_string(version) + " is not supported";
    return errors::kInvalidVersion;
  }
  if (r.Remaining() < kDigestSize || length != r.Remaining() - kDigestSize) {
    why = "size does not match the header (truncated or extended)";
    return errors::kCorrupted;
  }
  const std::size_t body = kHeaderSize + static_cast<std::size_t>(length);
  if (std::memcmp(Checksum(image.data(), body).data(), image.data() + body, kDigestSize) != 0) {
    why = "checksum mismatch";
    return errors::kCorrupted;
  }
  ByteReader payload(image.data() + kHeaderSize, static_cast<std::size_t>(length));
  for (std::uint32_t i = 0; i < count; ++i) {
    std::string_view name, value;
    if (!payload.Sized(name) || !payload.Sized(value)) {
      why = "malformed node " + std::to_string(i);
      return errors::kCorrupted;
    }
    nodes.push_back({std::string(name), orn::types::blob_t(value.begin(), value.end())});
  }
  if (payload.Remaining() != 0) {
    why = "bytes after the last node";
    return errors::kCorrupted;
  }
  return orn::errors::kOk;
}

}  // namespace arvo::host
