// The on-access task's inotify receiver: decides whether a reported object
// lies in scope, tells the integrity monitor publisher about it and
// publishes a "SystemIntegrityIssue" product event.
#pragma once

#include <sys/inotify.h>

#include <cstdint>
#include <mutex>

#include "framework/object.h"
#include "framework/service.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"
#include "orn/types.h"
#include "pax/inotify.h"
#include "pax/integrity_monitor_publisher.h"
#include "pax/path_matcher.h"
#include "pax/product_event.h"
#include "pax/settings/fim_settings.h"

namespace pax::fim {

// Every trace line of the on-access side begins with this tag.
inline constexpr const char kOnAccessPrefix[] = "integrity_monitor(OA)\t";

// The changes the on-access task subscribes to for each scan area.
inline constexpr std::uint32_t kOnAccessEventMask =
    IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;
static_assert(kOnAccessEventMask == 0x3C6);

// Thread-safety: OnEvent runs on the provider's delivery thread while the
// task calls UpdateSettings from host threads. m_mutex guards m_settings and
// m_matcher; the task holds its own mutex when it calls UpdateSettings, so
// the order is task mutex, then m_mutex.
class IntegrityMonitorCallbacks : public IInotifyEventsReceiver,
                                  public orn::TracerProvider,
                                  private orn::NonCopyable {
 public:
  using Interfaces = orn::Ifaces<IInotifyEventsReceiver>;

  // Keeps counted references to the tracer (may be null) and both publishers.
  IntegrityMonitorCallbacks(orn::ITracer* tracer, IEventPublisher* eventPublisher,
                            IIntegrityMonitorPublisher* integrityMonitorPublisher);

  // 0 or the event publisher's result when an event was published; 1 when
  // the event was skipped; errors::kUnspecified on a reported error.
  // Never throws.
  result_t OnEvent(const InotifyEvent& event) override;
  // "IntegrityMonitorTask", the task's name.
  result_t GetName(orn::types::string8_t& name) const override;

  // Copies `settings` and takes `matcher` (null clears it).
  void UpdateSettings(const settings::OAFIMSettings* settings, IPathMatcher* matcher);

  // 0 when the object lies in scope, errors::kNotFound when it does not. An
  // ancestor of a scan area is always in scope; anything the matcher does
  // not answer 1 for, failures and a missing matcher included, is in scope.
  result_t IsInScope(const NativePath& path, bool isDirectory) const;

 private:
  // Reports an event in scope to both publishers.
  result_t Report(const InotifyEvent& event);
  bool IsScanAreaAncestor(const NativePath& path) const;
  orn::types::string16_t RuleId() const;

  // The task's subscription mask, recorded for diagnosis; not read.
  [[maybe_unused]] std::uint32_t m_eventMask = kOnAccessEventMask;
  orn::RefPtr<IEventPublisher> m_eventPublisher;
  orn::RefPtr<IIntegrityMonitorPublisher> m_integrityMonitorPublisher;
  mutable std::recursive_mutex m_mutex;
  settings::OAFIMSettings m_settings;   // guarded by m_mutex
  orn::RefPtr<IPathMatcher> m_matcher;  // guarded by m_mutex
  // The rule id events carry. Reporting reads it without m_mutex (only the
  // scope decision is serialised against UpdateSettings); this small lock
  // of its own keeps that read free of a data race.
  mutable std::mutex m_ruleIdMutex;
  orn::types::string16_t m_ruleId;  // guarded by m_ruleIdMutex
};

}  // namespace pax::fim
