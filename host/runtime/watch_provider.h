// The watch provider the configuration asks for.
#pragma once

#include <string>

#include "host/config/watch_backend.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/inotify.h"

namespace arvo::host {

// Creates the provider `wanted` asks for. `description` says which backend
// runs and, for kAuto, why ("fanotify (file-system marks)", "inotify
// (fanotify needs CAP_SYS_ADMIN)"); on failure it says why nothing runs.
orn::result_t CreateWatchProvider(orn::ITracer* tracer, WatchBackend wanted,
                                  orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                  std::string& description);

}  // namespace arvo::host
