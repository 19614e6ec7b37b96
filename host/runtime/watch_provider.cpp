#include "host/runtime/watch_provider.h"

#include "host/watch/fanotify_provider.h"
#include "host/watch/inotify_provider.h"

namespace arvo::host {

orn::result_t CreateWatchProvider(orn::ITracer* tracer, WatchBackend wanted,
                                  CoverageObserver observer,
                                  orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                  std::string& description,
                                  std::shared_ptr<InotifyCoverage>* coverage) {
  std::string refused;
  if (wanted != WatchBackend::kInotify) {
    const orn::result_t r = CreateFanotifyProvider(tracer, out, refused, observer);
    if (ORN_SUCCEEDED(r)) {
      description = "fanotify (file-system marks)";
      return r;
    }
    if (wanted == WatchBackend::kFanotify) {
      description = "cannot use fanotify: " + refused;
      return r;
    }
  }
  const orn::result_t r = CreateInotifyProvider(tracer, out, std::move(observer), coverage);
  if (ORN_FAILED(r)) {
    description = "cannot create the inotify provider";
  } else {
    description = wanted == WatchBackend::kAuto ? "inotify (" + refused + ")" : "inotify";
  }
  return r;
}

}  // namespace arvo::host
