// The reference host's fanotify watch service (pax::IInotifyEventsProvider):
// whole file systems watched with one mark each, no per-directory watches.
//
// One fanotify instance (FAN_CLASS_NOTIF, directory handles and names) and
// one delivery thread serve every subscription. Subscribing marks the file
// system that holds the directory (FAN_MARK_FILESYSTEM; a mount mark where a
// file-system mark is refused) unless it is marked already, so it takes the
// same short time whatever the size of the tree, and a directory created or
// moved in is covered at once. Scope, event meaning and masks are those of
// the inotify provider (see host/watch/fanotify_scope.h); renames are seen
// whole (FAN_RENAME).
//
// Each delivery runs with the causing process as the thread's current
// ProcessOrigin (host/util/process_origin.h). Changes made by this process
// itself (its database, logs, storage) are not delivered.
//
// A queue overflow reaches every subscription as an error event, then the
// coverage observer (when given) as one kQueueOverflow notice per
// subscription root, with no provider lock held, as from the inotify
// provider (host/util/coverage_notice.h). A watched file system that is
// unmounted reaches the subscriptions on it as an error event.
//
// Needs CAP_SYS_ADMIN (fanotify_init) and CAP_DAC_READ_SEARCH
// (open_by_handle_at); CreateFanotifyProvider fails without them, and the
// host then uses the inotify provider.
//
// Thread-safety: as the inotify provider's (host/watch/inotify_provider.h).
#pragma once

#include <string>

#include "host/util/coverage_notice.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/inotify.h"

namespace arvo::host {

// Creates the provider and its fanotify instance; the delivery thread starts
// on the first Subscribe. On failure `why` says what the kernel refused, in
// words for the line that explains which backend runs. `observer` may be
// empty.
orn::result_t CreateFanotifyProvider(orn::ITracer* tracer,
                                     orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                     std::string& why, CoverageObserver observer = {});

}  // namespace arvo::host
