#include "host/output/events_log.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "host/output/event_format.h"

namespace arvo::host {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr mode_t kDirectoryMode = 0750;

// Creates the missing directories above `file`, each with kDirectoryMode
// (the umask may remove bits). Returns 0 or an errno.
int MakeParents(const std::string& file) {
  const std::filesystem::path parent = std::filesystem::path(file).parent_path();
  std::filesystem::path built;
  for (const auto& part : parent) {
    built /= part;
    if (::mkdir(built.c_str(), kDirectoryMode) != 0 && errno != EEXIST) return errno;
  }
  return 0;
}

}  // namespace

bool EventsLog::Open(const std::string& path, std::string& error) {
  ScopedFd fd;
  if (!path.empty()) {
    int err = MakeParents(path);
    if (!err) {
      fd.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode));
      if (!fd.Valid()) err = errno;
    }
    if (err) {
      error = "cannot open the events log '" + path + "': " + std::strerror(err);
      return false;
    }
  }
  std::lock_guard lock(m_mutex);
  m_path = path;
  m_fd = std::move(fd);
  return true;
}

bool EventsLog::Reopen(std::string& error) { return Open(Path(), error); }

std::string EventsLog::Path() const {
  std::lock_guard lock(m_mutex);
  return m_path;
}

orn::result_t EventsLog::Publish(const pax::ProductEvent& event) {
  try {
    std::string line = FormatEventJson(event);
    line.push_back('\n');
    std::lock_guard lock(m_mutex);
    if (!m_fd.Valid()) return orn::errors::kOk;
    const int err = WriteAll(m_fd.Get(), line.data(), line.size());
    return err ? orn::ResultFromErrno(err) : orn::errors::kOk;
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
}

}  // namespace arvo::host
