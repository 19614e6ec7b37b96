#include "host/services/sha256_provider.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <new>

#include "framework/exceptions.h"
#include "orn/simple_object.h"

namespace arvo::host {
namespace {

constexpr std::size_t kMaxBlock = 256 * 1024;
constexpr std::size_t kMinBlock = 4 * 1024;

struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

struct MdFree {
  void operator()(EVP_MD* md) const { EVP_MD_free(md); }
};
using Md = std::unique_ptr<EVP_MD, MdFree>;

// Block size for a stream: one read (plus the one that sees the end) for a
// small file, without touching more memory than the file needs.
std::size_t BlockSizeFor(const orn::IIO& io) {
  orn::FileIdentity id;
  if (ORN_FAILED(io.GetIdentity(&id)) || id.size < 0) return kMaxBlock;
  const auto want = static_cast<std::uint64_t>(id.size) + 1;
  return static_cast<std::size_t>(std::clamp<std::uint64_t>(want, kMinBlock, kMaxBlock));
}

class Sha256Provider final : public orn::SimpleObject<filesystem_services::ISha256HashProvider> {
 public:
  // Fetching the implementation once spares every digest OpenSSL's implicit
  // lookup; EVP_sha256() remains the fallback.
  Sha256Provider() : m_fetched(EVP_MD_fetch(nullptr, "SHA256", nullptr)) {}

  orn::result_t GetHashByIO(orn::IIO* io, filesystem_services::Sha256Hash& hash) override {
    if (!io) return orn::errors::kInvalidArgument;
    MdCtx ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), Method(), nullptr) != 1)
      return orn::errors::kOutOfMemory;
    const std::size_t block = BlockSizeFor(*io);
    const std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[block]);
    if (!buffer) return orn::errors::kOutOfMemory;
    while (true) {
      std::size_t got = 0;
      const orn::result_t r = io->Read(buffer.get(), block, &got);
      if (ORN_FAILED(r)) return r;
      if (got == 0) break;
      if (EVP_DigestUpdate(ctx.get(), buffer.get(), got) != 1) return orn::errors::kUnexpected;
    }
    return Final(ctx.get(), hash);
  }

  orn::result_t GetHashByBuffer(const void* data, std::size_t size,
                                filesystem_services::Sha256Hash& hash) override {
    if (!data && size != 0) return orn::errors::kInvalidArgument;
    MdCtx ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), Method(), nullptr) != 1)
      return orn::errors::kOutOfMemory;
    if (size != 0 && EVP_DigestUpdate(ctx.get(), data, size) != 1) return orn::errors::kUnexpected;
    return Final(ctx.get(), hash);
  }

 private:
  const EVP_MD* Method() const { return m_fetched ? m_fetched.get() : EVP_sha256(); }

  static orn::result_t Final(EVP_MD_CTX* ctx, filesystem_services::Sha256Hash& hash) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_DigestFinal_ex(ctx, md, &len) != 1 || len != hash.size())
      return orn::errors::kUnexpected;
    std::copy_n(md, hash.size(), hash.begin());
    return orn::errors::kOk;
  }

  const Md m_fetched;
};

}  // namespace

orn::result_t CreateSha256Provider(orn::RefPtr<filesystem_services::ISha256HashProvider>& out) {
  try {
    out = orn::MakeSimple<Sha256Provider>();
    return orn::errors::kOk;
  } catch (...) {
    return orn::ExceptionToResult(nullptr, "sha256\t");
  }
}

}  // namespace arvo::host
