#include "host/runtime/inotify_usage.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace arvo::host {

std::size_t InotifyWatchesInUse() {
  std::size_t watches = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    char target[64];
    const ssize_t n = ::readlink(entry.path().c_str(), target, sizeof target - 1);
    if (n <= 0 || std::string(target, static_cast<std::size_t>(n)) != "anon_inode:inotify")
      continue;
    std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
    for (std::string line; std::getline(info, line);)
      if (line.rfind("inotify wd:", 0) == 0) ++watches;
  }
  return watches;
}

}  // namespace arvo::host
