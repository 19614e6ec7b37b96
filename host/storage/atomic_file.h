// Whole-file reads and crash-safe whole-file replacement.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orn/result.h"

namespace arvo::host {

// Reads the whole file. errors::kFileNotFound when it does not exist; other
// failures through orn::ResultFromErrno.
orn::result_t ReadWholeFile(const std::string& file, std::vector<std::uint8_t>& out);

// Replaces `file` with `data` so that a crash at any moment leaves either
// the old or the new content, never a mix: the data goes to a new temporary
// file in the same directory (mode 0600), is synced, renamed over `file`,
// and the directory is synced. On failure the temporary file is removed; a
// failure of the final directory sync is reported although the rename has
// happened (the new content is then in place but perhaps not yet durable).
// Concurrent replacements of one file by several writers are each atomic;
// the last rename wins.
orn::result_t ReplaceFileAtomically(const std::string& file, const std::vector<std::uint8_t>& data);

}  // namespace arvo::host
