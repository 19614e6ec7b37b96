// The watch provider the configuration asks for.
#pragma once

#include <string>

#include "host/config/watch_backend.h"
#include "host/util/coverage_notice.h"
#include "host/watch/inotify_provider.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/inotify.h"

namespace arvo::host {

// Which backend a created provider runs.
struct WatchProviderChoice {
  // Which backend runs and, for kAuto, why ("fanotify (file-system marks)",
  // "inotify (fanotify needs CAP_SYS_ADMIN)"); on failure why nothing runs.
  std::string description;
  // fanotify runs (alone, or first with inotify as its fallback): watching
  // an area costs no per-directory watch.
  bool fileSystemMarks = false;
};

// Creates the provider `wanted` asks for and describes it in `choice`.
// Either backend tells `observer` (may be empty) of its losses of coverage;
// `coverage` (may be null) receives the inotify provider's controls, and
// stays empty with fanotify, whose marks do not get lost with a root.
orn::result_t CreateWatchProvider(orn::ITracer* tracer, WatchBackend wanted,
                                  CoverageObserver observer,
                                  orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                  WatchProviderChoice& choice,
                                  std::shared_ptr<InotifyCoverage>* coverage = nullptr);

}  // namespace arvo::host
