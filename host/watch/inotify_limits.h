// The kernel's per-user inotify limits and the advice given when one is hit.
#pragma once

#include <optional>
#include <string>

namespace arvo::host {

inline constexpr const char* kMaxUserWatchesFile = "/proc/sys/fs/inotify/max_user_watches";
inline constexpr const char* kMaxUserInstancesFile = "/proc/sys/fs/inotify/max_user_instances";

// The number in a /proc/sys limit file; empty when it cannot be read.
std::optional<long> ReadInotifyLimit(const char* file);

// Text of the error line written when inotify_add_watch fails with ENOSPC
// while watching `path`: names the limit file, its value `limit` when known,
// and the sysctl command that raises it.
std::string WatchLimitMessage(const std::string& path, std::optional<long> limit);

// Text of the error line written when inotify_init1 fails with EMFILE.
std::string InstanceLimitMessage(std::optional<long> limit);

}  // namespace arvo::host
