#include "host/config/watch_backend.h"

namespace arvo::host {

std::optional<WatchBackend> WatchBackendNamed(std::string_view name) {
  if (name == "auto") return WatchBackend::kAuto;
  if (name == "fanotify") return WatchBackend::kFanotify;
  if (name == "inotify") return WatchBackend::kInotify;
  return std::nullopt;
}

const char* NameOf(WatchBackend backend) {
  switch (backend) {
    case WatchBackend::kFanotify:
      return "fanotify";
    case WatchBackend::kInotify:
      return "inotify";
    case WatchBackend::kAuto:
      break;
  }
  return "auto";
}

}  // namespace arvo::host
