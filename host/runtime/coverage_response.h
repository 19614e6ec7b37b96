// What the host does when the watch side reports a change of coverage:
// every notice becomes a "CoverageLost" or "CoverageRestored" event in the
// same outputs as every other event, and a loss that a scan can make up for
// (a queue overflow, a subtree past the watch limit, a lost root) asks for a
// catch-up scan, so that changes made during the gap are still reported by
// the comparison with the baseline. An unreadable directory is reported
// only: a scan cannot read it either.
#pragma once

#include <functional>
#include <string>

#include "host/util/coverage_notice.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/product_event.h"

namespace arvo::host {

// Asks for a catch-up scan; thread-safe, may coalesce. `reason` is for
// people ("QueueOverflow: /srv").
using CatchUpScanRequest = std::function<void(std::string reason)>;

// The observer to hand the watch provider. `publisher` must be
// thread-safe; `tracer` may be null; `requestScan` may be empty (nothing
// can scan: the loss is only reported).
CoverageObserver MakeCoverageResponse(orn::RefPtr<pax::IEventPublisher> publisher,
                                      orn::RefPtr<orn::ITracer> tracer,
                                      CatchUpScanRequest requestScan);

}  // namespace arvo::host
