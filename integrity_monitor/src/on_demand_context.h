// What the on-demand task's components share during one run: the task owns
// every member and fills them before the run; components read them on the
// worker thread only (the task lock is held for the whole run).
#pragma once

#include <sqlite3.h>

#include <atomic>
#include <cstdint>

#include "filesystem_services/sha256.h"
#include "orn/file.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "pax/integrity_monitor_publisher.h"
#include "pax/path_matcher.h"
#include "pax/product_event.h"
#include "pax/settings/fim_settings.h"
#include "pax/task_info.h"

namespace pax::fim {

inline constexpr const char kOdfimPrefix[] = "odfim\t";

class AreaResolver;

struct OnDemandContext {
  orn::ITracer* tracer = nullptr;
  sqlite3* db = nullptr;                              // owned by the task
  const settings::ODFIMSettings* settings = nullptr;  // the current settings
  const TaskInfo* taskInfo = nullptr;                 // filled at the start of a run
  IEventPublisher* eventPublisher = nullptr;
  IIntegrityMonitorPublisher* integrityMonitorPublisher = nullptr;
  filesystem_services::ISha256HashProvider* sha256Provider = nullptr;
  orn::IFileFactory* fileFactory = nullptr;
  orn::IFileFactoryAt* fileFactoryAt = nullptr;  // the same object's, when offered
  IPathMatcher* matcher = nullptr;
  // Set per area while its snapshot is written as the baseline rather than
  // as the current snapshot.
  bool buildingBaseline = false;
  // Where a walk's objects are resolved while it runs (area_resolver.h);
  // null outside a walk: paths are then resolved as given.
  const AreaResolver* resolver = nullptr;
  // Set by Stop (from another thread) to end a walk early.
  const std::atomic<std::uint8_t>* stopFlag = nullptr;
};

}  // namespace pax::fim
