// What the watch side tells the host when part of an area stops being
// watched, or an area lost before is watched again. The watch side only
// reports; the host decides what follows (an event, a catch-up scan).
#pragma once

#include <functional>
#include <string>

namespace arvo::host {

enum class CoverageReason {
  kQueueOverflow,  // the kernel's queue overflowed: events of every area were lost
  kWatchLimit,     // the per-user watch limit was reached: a subtree has no watch
  kUnreadable,     // a directory could not be opened or watched (permissions, I/O)
  kRootGone,       // the area's root was deleted or moved away
  kRootBack,       // the area's root exists again and is watched
};

struct CoverageNotice {
  std::string area;  // the root of the area concerned
  CoverageReason reason = CoverageReason::kQueueOverflow;
  std::string path;  // the directory concerned (the area itself when all of it is)
};

// Called without the watch side's locks held, on its delivery thread or on
// the thread that asked for a re-check; must be thread-safe and must not
// throw.
using CoverageObserver = std::function<void(const CoverageNotice&)>;

}  // namespace arvo::host
