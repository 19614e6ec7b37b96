// Fuzzes the storage file reader. The first byte chooses the input's shape:
// even, the bytes are the file image as read from disk; odd, they are a
// payload wrapped in a valid header and checksum, so that the node parser
// behind the checksum is reached. A decoded image encodes back to one that
// decodes to the same nodes.
#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/storage/byte_codec.h"
#include "host/storage/storage_file.h"

namespace {

using arvo::host::StoredNode;

std::vector<std::uint8_t> Wrap(std::uint32_t count, const std::uint8_t* payload, std::size_t size) {
  std::vector<std::uint8_t> image;
  arvo::host::ByteWriter w(image);
  w.Raw("ARVOSTOR", 8);
  w.U32(1);
  w.U32(count);
  w.U64(size);
  w.Raw(payload, size);
  std::array<std::uint8_t, 32> digest{};
  unsigned int length = 0;
  if (EVP_Digest(image.data(), image.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1)
    std::abort();
  w.Raw(digest.data(), digest.size());
  return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::vector<std::uint8_t> image = data[0] % 2 == 0
                                              ? std::vector<std::uint8_t>(data + 1, data + size)
                                              : Wrap(data[0] / 2, data + 1, size - 1);
  std::vector<StoredNode> nodes;
  std::string why;
  if (ORN_FAILED(arvo::host::DecodeStorage(image, nodes, why))) {
    if (why.empty()) std::abort();
    return 0;
  }
  std::vector<arvo::host::StoredNodeView> views;
  for (const StoredNode& n : nodes) views.push_back({n.name, &n.value});
  std::vector<StoredNode> again;
  if (ORN_FAILED(arvo::host::DecodeStorage(arvo::host::EncodeStorage(views), again, why)))
    std::abort();
  if (again.size() != nodes.size()) std::abort();
  for (std::size_t i = 0; i < nodes.size(); ++i)
    if (again[i].name != nodes[i].name || again[i].value != nodes[i].value) std::abort();
  return 0;
}
