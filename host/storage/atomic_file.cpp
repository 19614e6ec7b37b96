#include "host/storage/atomic_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "host/util/scoped_fd.h"

namespace arvo::host {
namespace {

std::string DirectoryOf(const std::string& file) {
  const std::size_t slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : file.substr(0, slash);
}

// Removes the temporary file unless the rename consumed it.
class TempFileGuard {
 public:
  explicit TempFileGuard(std::string path) : m_path(std::move(path)) {}
  ~TempFileGuard() {
    if (!m_path.empty()) ::unlink(m_path.c_str());
  }
  TempFileGuard(const TempFileGuard&) = delete;
  TempFileGuard& operator=(const TempFileGuard&) = delete;
  void Dismiss() { m_path.clear(); }

 private:
  std::string m_path;
};

}  // namespace

orn::result_t ReadWholeFile(const std::string& file, std::vector<std::uint8_t>& out) {
  out.clear();
  ScopedFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!fd.Valid()) return orn::ResultFromErrno(errno);
  struct stat st {};
  if (::fstat(fd.Get(), &st) != 0) return orn::ResultFromErrno(errno);
  if (S_ISDIR(st.st_mode)) return orn::ResultFromErrno(EISDIR);
  std::size_t used = 0;
  out.resize(st.st_size > 0 ? static_cast<std::size_t>(st.st_size) + 1 : 4096);
  while (true) {
    if (used == out.size()) out.resize(out.size() * 2);
    const ssize_t n = ::read(fd.Get(), out.data() + used, out.size() - used);
    if (n < 0) {
      if (errno == EINTR) continue;
      return orn::ResultFromErrno(errno);
    }
    if (n == 0) break;
    used += static_cast<std::size_t>(n);
  }
  out.resize(used);
  return orn::errors::kOk;
}

orn::result_t ReplaceFileAtomically(const std::string& file,
                                    const std::vector<std::uint8_t>& data) {
  std::string temp = file + ".tmp.XXXXXX";
  ScopedFd fd(::mkostemp(temp.data(), O_CLOEXEC));
  if (!fd.Valid()) return orn::ResultFromErrno(errno);
  TempFileGuard guard(temp);
  if (const int err = WriteAll(fd.Get(), data.data(), data.size()); err != 0)
    return orn::ResultFromErrno(err);
  if (::fsync(fd.Get()) != 0) return orn::ResultFromErrno(errno);
  // close() can report a deferred write error (NFS); it must not be lost.
  if (::close(fd.Release()) != 0) return orn::ResultFromErrno(errno);
  if (::rename(temp.c_str(), file.c_str()) != 0) return orn::ResultFromErrno(errno);
  guard.Dismiss();
  const ScopedFd dir(::open(DirectoryOf(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir.Valid() || ::fsync(dir.Get()) != 0) return orn::ResultFromErrno(errno);
  return orn::errors::kOk;
}

}  // namespace arvo::host
