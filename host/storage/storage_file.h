// The byte image of the persistent storage file.
//
// Layout (integers little-endian): the magic "ARVOSTOR", a u32 format
// version (1), a u32 node count, a u64 payload length, the payload, and the
// SHA-256 of everything before it. The payload holds the nodes in order,
// each as its name and its value, both as a LEB128 length and the bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orn/result.h"
#include "orn/types.h"

namespace arvo::host {

struct StoredNode {
  orn::types::string8_t name;
  orn::types::blob_t value;
};

// A node as the encoder sees it; views into storage the caller keeps alive.
struct StoredNodeView {
  std::string_view name;
  const orn::types::blob_t* value;
};

std::vector<std::uint8_t> EncodeStorage(const std::vector<StoredNodeView>& nodes);

// Decodes an image. On failure returns errors::kInvalidSignature (not a
// storage file), errors::kInvalidVersion or errors::kCorrupted (truncated,
// checksum mismatch, malformed payload) and says why in `why`.
orn::result_t DecodeStorage(const std::vector<std::uint8_t>& image, std::vector<StoredNode>& nodes,
                            std::string& why);

}  // namespace arvo::host
