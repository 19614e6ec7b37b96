// The reference host's recursive inotify service (pax::IInotifyEventsProvider).
//
// One inotify instance and one delivery thread serve every subscription. A
// subscription watches a directory and its whole subtree: the directories
// present when it is made and every directory created or moved in later; the
// entries a new directory already holds when its watch is added are reported
// as created (an entry created in that instant may be reported twice).
//
// Each event is meaningful as it stands: `mask` is a file modification type
// code (pax::modification): content changed, attributes changed, created,
// deleted, renamed (moved within its directory) or moved (to another
// directory, `formerPath` set). A move between two subscriptions of one
// receiver is one such move; a move out of every tree the receiver watches
// reads as a deletion, a move in as a creation. A subscribed directory may
// be given through a symbolic link (paths then begin with the link's path);
// below it no link is followed. Only the kinds asked for in the
// subscription mask (IN_MODIFY, IN_ATTRIB, IN_CREATE, IN_DELETE,
// IN_MOVED_FROM, IN_MOVED_TO) are delivered; a deletion by move needs
// IN_MOVED_FROM or IN_DELETE, a creation by move IN_MOVED_TO or IN_CREATE.
// Paths are byte strings, passed through unchanged.
//
// A queue overflow reaches every subscription as an event whose `error` says
// that events were lost (the trees are then rescanned so that new directories
// get their watches). A watch root deleted or moved away is reported as
// deleted and is no longer watched; the subscription stays until
// Unsubscribe.
//
// Thread-safety: Subscribe and Unsubscribe may be called from any thread,
// including from inside OnEvent on the delivery thread. Receivers are called
// one at a time, on the delivery thread, with no provider lock held. The last
// reference to the provider should not be dropped inside OnEvent; if it is,
// the delivery thread ends on its own instead of being joined. Subscribe
// walks its tree under the provider's lock, so delivery to every receiver
// pauses while a large tree is set up (records wait in the kernel's queue).
//
// Coverage: the host may pass an observer that learns of every loss of
// coverage (queue overflow, watch limit, unreadable directory, root lost)
// and of every lost root watched again (see host/util/coverage_notice.h).
// It is called after the events of the same records were delivered, with no
// provider lock held. A lost root is watched again only when asked
// (InotifyCoverage::RewatchLostRoots) or after a queue overflow.
#pragma once

#include <memory>

#include "host/util/coverage_notice.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/inotify.h"

namespace arvo::host {

// The host's controls of a provider beyond the module's interface.
// Thread-safe; kept valid by the holder even after the provider is released.
class InotifyCoverage {
 public:
  virtual ~InotifyCoverage() = default;
  // Watches again every subscription root that was lost and exists now;
  // the observer hears of each one (kRootBack) on the calling thread.
  virtual void RewatchLostRoots() = 0;
};

// Creates the provider and its inotify instance; the delivery thread starts
// on the first Subscribe. `tracer` may be null; `observer` may be empty;
// `coverage` (may be null) receives the provider's coverage controls. Fails
// when the kernel refuses an instance (the per-user instance limit is
// traced with how to raise it).
orn::result_t CreateInotifyProvider(orn::ITracer* tracer,
                                    orn::RefPtr<pax::IInotifyEventsProvider>& out,
                                    CoverageObserver observer = {},
                                    std::shared_ptr<InotifyCoverage>* coverage = nullptr);

}  // namespace arvo::host
