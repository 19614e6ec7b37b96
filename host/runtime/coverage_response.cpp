#include "host/runtime/coverage_response.h"

#include "framework/trace.h"
#include "host/output/host_events.h"

namespace arvo::host {
namespace {

bool ScanMakesUpFor(CoverageReason reason) {
  return reason == CoverageReason::kQueueOverflow || reason == CoverageReason::kWatchLimit ||
         reason == CoverageReason::kRootGone;
}

}  // namespace

CoverageObserver MakeCoverageResponse(orn::RefPtr<pax::IEventPublisher> publisher,
                                      orn::RefPtr<orn::ITracer> tracer,
                                      CatchUpScanRequest requestScan) {
  return [publisher = std::move(publisher), tracer = std::move(tracer),
          requestScan = std::move(requestScan)](const CoverageNotice& notice) {
    const std::string what = std::string(CoverageReasonName(notice.reason)) + ": " + notice.path;
    const bool scan = requestScan && ScanMakesUpFor(notice.reason);
    ORN_TRACE(tracer.Get(), notice.reason == CoverageReason::kRootBack ? orn::kTraceLevelDetail
                                                                       : orn::kTraceLevelWarning)
        << "coverage\tArea '" << notice.area << "': " << what
        << (scan ? " (catch-up scan requested)" : "");
    // A failed output has said so itself; the scan is wanted all the same.
    (void)publisher->Publish(MakeCoverageEvent(notice));
    if (scan) requestScan(what);
  };
}

}  // namespace arvo::host
