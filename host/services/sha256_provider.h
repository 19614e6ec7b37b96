// The host's SHA-256 service (filesystem_services::ISha256HashProvider) on
// OpenSSL's EVP interface, which picks the CPU's SHA instructions where the
// processor has them.
#pragma once

#include "filesystem_services/sha256.h"
#include "orn/ref_ptr.h"

namespace arvo::host {

// The provider is stateless and thread-safe. GetHashByIO reads the stream in
// blocks of up to 256 KiB (smaller for small files, judged by the stream's
// identity) and passes a failed Read on unchanged; `hash` is written only
// on success.
orn::result_t CreateSha256Provider(orn::RefPtr<filesystem_services::ISha256HashProvider>& out);

}  // namespace arvo::host
