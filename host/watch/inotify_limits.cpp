#include "host/watch/inotify_limits.h"

#include <fstream>

namespace arvo::host {
namespace {

// Twice the current limit, and never less than a value that covers a large
// system tree: a suggestion, not a computed need.
long SuggestedLimit(std::optional<long> limit, long floor) {
  const long doubled = limit && *limit > 0 ? 2 * *limit : 0;
  return doubled > floor ? doubled : floor;
}

std::string DescribeLimit(const char* file, std::optional<long> limit) {
  std::string text = file;
  text += limit ? " = " + std::to_string(*limit) : std::string(" unreadable");
  return text;
}

}  // namespace

std::optional<long> ReadInotifyLimit(const char* file) {
  std::ifstream in(file);
  long value = 0;
  if (!(in >> value)) return std::nullopt;
  return value;
}

std::string WatchLimitMessage(const std::string& path, std::optional<long> limit) {
  return "Cannot watch '" + path + "': the per-user inotify watch limit is reached (" +
         DescribeLimit(kMaxUserWatchesFile, limit) +
         "); raise it with 'sysctl fs.inotify.max_user_watches=" +
         std::to_string(SuggestedLimit(limit, 524288)) +
         "' (and in /etc/sysctl.d/ to keep it after a reboot)";
}

std::string InstanceLimitMessage(std::optional<long> limit) {
  return "Cannot create an inotify instance: the per-user instance limit is reached (" +
         DescribeLimit(kMaxUserInstancesFile, limit) +
         "); raise it with 'sysctl fs.inotify.max_user_instances=" +
         std::to_string(SuggestedLimit(limit, 1024)) + "'";
}

}  // namespace arvo::host
