#include "host/util/private_directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace arvo::host {

std::string DatabaseFile() {
  const char* env = std::getenv("ARVO_FIM_DB");
  return env && *env ? env : kDefaultDatabaseFile;
}

bool EnsureParentDirectory(const std::string& file, std::string& error) {
  const std::size_t slash = file.rfind('/');
  if (slash == std::string::npos || slash == 0) return true;
  const std::string directory = file.substr(0, slash);
  // Each prefix ending before a "/" (and the directory itself) in turn.
  for (std::size_t end = directory.find('/', 1);; end = directory.find('/', end + 1)) {
    const std::string part = directory.substr(0, end);
    if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      error = "cannot create directory '" + part + "': " + std::strerror(errno);
      return false;
    }
    if (end == std::string::npos) break;
  }
  struct stat st {};
  if (::stat(directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    error = "'" + directory + "' is not a directory";
    return false;
  }
  return true;
}

}  // namespace arvo::host
