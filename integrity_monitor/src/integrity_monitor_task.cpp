#include "integrity_monitor_task.h"

#include <cstdio>
#include <string>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "orn/text.h"

namespace pax::fim {
namespace {

using app_core::task_manager::task::ITaskStopEvents;
using app_core::task_manager::task::TaskSessionId;
using app_core::task_manager::task::TaskStopInfo;

std::string IidText(orn::iid_t iid) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", iid);
  return text;
}

// Constructor-time lookup: this task does not go on without the service.
template <class T>
orn::RefPtr<T> RequireService(orn::IServiceLocator* locator) {
  orn::RefPtr<T> service;
  const result_t r = orn::GetInterface(locator, service.Ref());
  if (ORN_FAILED(r) || !service) {
    throw orn::ResultCodeException(__FILE__, __LINE__,
                                   ORN_FAILED(r) ? r : orn::errors::kNoInterface,
                                   "Can't get interface", {{"orn.iid", IidText(orn::IidOf<T>())}});
  }
  return service;
}

}  // namespace

IntegrityMonitorTask::IntegrityMonitorTask(orn::IServiceLocator* locator) {
  m_allocator = RequireService<orn::IAllocator>(locator);
  m_tracer = RequireService<orn::ITracer>(locator);
  m_serviceLocator = orn::RefPtr<orn::IServiceLocator>(locator);
}

result_t IntegrityMonitorTask::FinalConstruct() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  orn::IServiceLocator* sl = GetServiceLocator();
  if (const result_t r = ORN_CHECK(GetTracer(), orn::GetInterface(sl, m_eventsProvider.Ref()),
                                   "Cannot get IInotifyEventsProvider");
      ORN_FAILED(r))
    return r;
  orn::RefPtr<IEventPublisher> eventPublisher;
  if (const result_t r = ORN_CHECK(GetTracer(), GetInterface(sl, eventPublisher.Ref()),
                                   "Cannot get IEventPublisher");
      ORN_FAILED(r))
    return r;
  orn::RefPtr<IIntegrityMonitorPublisher> integrityMonitorPublisher;
  if (const result_t r = ORN_CHECK(GetTracer(), GetInterface(sl, integrityMonitorPublisher.Ref()),
                                   "Cannot get IIntegrityMonitorPublisher");
      ORN_FAILED(r))
    return r;
  orn::RefPtr<IntegrityMonitorCallbacks> callbacks;
  if (const result_t r = orn::CreateObject<IntegrityMonitorCallbacks>(
          GetAllocator(), GetTracer(), callbacks, GetTracer(), eventPublisher.Get(),
          integrityMonitorPublisher.Get());
      ORN_FAILED(r))
    return r;
  m_callbacks = std::move(callbacks);
  return orn::errors::kOk;
}

void IntegrityMonitorTask::FinalRelease() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
}

result_t IntegrityMonitorTask::Construct(const settings::OAFIMSettings* settings) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  return SetSettings(settings);
}

result_t IntegrityMonitorTask::GetSettings(settings::OAFIMSettings* settings) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  std::lock_guard lock(m_mutex);
  *settings = m_settings;
  return orn::errors::kOk;
}

result_t IntegrityMonitorTask::SetSettings(const settings::OAFIMSettings* settings) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  std::lock_guard lock(m_mutex);
  m_settings = *settings;
  // On failure the new settings stay with the old matcher in force.
  if (const result_t r = ORN_CHECK(GetTracer(), CreateMatcher(), ""); ORN_FAILED(r)) return r;
  m_callbacks->UpdateSettings(&m_settings, m_matcher.Get());
  if (m_state != TaskState::kStarted) return orn::errors::kOk;

  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << "Resubscribing...";
  if (const result_t r =
          ORN_CHECK(GetTracer(), Unsubscribe(), "Cannot unsubscribe from file integrity events");
      ORN_FAILED(r))
    return r;
  // A failure here leaves the task started without subscriptions.
  if (const result_t r =
          ORN_CHECK(GetTracer(), Subscribe(), "Cannot subscribe to file integrity events");
      ORN_FAILED(r))
    return r;
  return orn::errors::kOk;
}

result_t IntegrityMonitorTask::Start(TaskSessionId sessionId, ITaskStopEvents* stopEvents) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  (void)sessionId;
  std::lock_guard lock(m_mutex);
  if (m_state != TaskState::kStopped) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
        << kOnAccessPrefix << "Integrity monitor is not stopped and thus cannot be started";
    return orn::errors::kInvalidState;
  }
  m_stopEvents = stopEvents;
  if (ORN_FAILED(Subscribe())) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelError)
        << kOnAccessPrefix << "Cannot subscribe to inotify events";
    m_stopEvents = nullptr;
    return orn::errors::kUnspecified;
  }
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << "Integrity monitor started";
  m_state = TaskState::kStarted;
  return orn::errors::kOk;
}

result_t IntegrityMonitorTask::Stop() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  std::lock_guard lock(m_mutex);
  if (m_state != TaskState::kStarted) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
        << kOnAccessPrefix << "Integrity monitor is not started and thus cannot be stopped";
    return orn::errors::kInvalidState;
  }
  if (const result_t r =
          ORN_CHECK(GetTracer(), Unsubscribe(), "Cannot unsubscribe from inotify events");
      ORN_FAILED(r))
    return r;
  m_state = TaskState::kStopped;
  NotifyTaskStop(orn::errors::kOk, "Task successfully stopped");
  m_stopEvents = nullptr;
  return orn::errors::kOk;
}

result_t IntegrityMonitorTask::Pause() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  return orn::errors::kNotImplemented;
}

result_t IntegrityMonitorTask::Resume() {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  return orn::errors::kNotImplemented;
}

void IntegrityMonitorTask::NotifyTaskStop(result_t result, const std::string& reason) {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
      << kOnAccessPrefix << __PRETTY_FUNCTION__ << " code: " << result << ", reason: " << reason;
  std::lock_guard lock(m_mutex);
  if (!m_stopEvents) return;
  const TaskStopInfo info{result, orn::text::NarrowToWide(reason)};
  (void)m_stopEvents->OnTaskStopped(info);
}

result_t IntegrityMonitorTask::CreateMatcher() {
  orn::RefPtr<IPathMatcherFactory> matcherFactory;
  if (const result_t r =
          ORN_CHECK(GetTracer(), orn::GetInterface(GetServiceLocator(), matcherFactory.Ref()),
                    "Cannot get pax::IPathMatcherFactory interface");
      ORN_FAILED(r))
    return r;
  orn::RefPtr<IPathMatcher> matcher;
  if (const result_t r = ORN_CHECK_AS(
          GetTracer(), matcherFactory->CreateFntreeMatcher(m_settings, m_settings, matcher.Ref()),
          "matcherFactory->CreateFntreeMatcher( m_settings, m_settings, matcher.Ref())",
          "Cannot create path matcher");
      ORN_FAILED(r))
    return r;
  m_matcher = std::move(matcher);
  return orn::errors::kOk;
}

result_t IntegrityMonitorTask::Subscribe() {
  for (const settings::ScanArea& area : m_settings.scanAreas) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
        << kOnAccessPrefix << "Processing scan area: " << area.path;
    if (ORN_FAILED(m_eventsProvider->Subscribe(m_callbacks.Get(), area.path, m_eventMask))) {
      ORN_TRACE(GetTracer(), orn::kTraceLevelError)
          << kOnAccessPrefix << "Cannot add subscription for directory: " << area.path;
      if (ORN_FAILED(Unsubscribe())) {
        ORN_TRACE(GetTracer(), orn::kTraceLevelError)
            << kOnAccessPrefix << "Cannot unsubscribe from file integrity events!";
      }
      return orn::errors::kUnspecified;
    }
  }
  return orn::errors::kOk;
}

result_t IntegrityMonitorTask::Unsubscribe() {
  return ORN_CHECK_AS(GetTracer(), m_eventsProvider->Unsubscribe(m_callbacks.Get()),
                      "m_eventsProvider->Unsubscribe(m_callbacks)",
                      "Cannot unsubscribe from inotify events!");
}

}  // namespace pax::fim
