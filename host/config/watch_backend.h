// Which kernel interface watches the areas.
#pragma once

#include <optional>
#include <string_view>

namespace arvo::host {

enum class WatchBackend {
  kAuto,      // fanotify where the kernel and privileges allow, else inotify
  kFanotify,  // file-system marks; fails where fanotify is refused
  kInotify,   // one watch per directory
};

std::optional<WatchBackend> WatchBackendNamed(std::string_view name);  // "auto", ...
const char* NameOf(WatchBackend backend);

}  // namespace arvo::host
