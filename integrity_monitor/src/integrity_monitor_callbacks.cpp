#include "integrity_monitor_callbacks.h"

#include "framework/trace.h"
#include "integrity_event.h"
#include "pax/enumerations.h"

namespace pax::fim {

IntegrityMonitorCallbacks::IntegrityMonitorCallbacks(
    orn::ITracer* tracer, IEventPublisher* eventPublisher,
    IIntegrityMonitorPublisher* integrityMonitorPublisher)
    : orn::TracerProvider(tracer),
      m_eventPublisher(eventPublisher),
      m_integrityMonitorPublisher(integrityMonitorPublisher) {}

result_t IntegrityMonitorCallbacks::GetName(orn::types::string8_t& name) const {
  ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
  name = "IntegrityMonitorTask";
  return orn::errors::kOk;
}

void IntegrityMonitorCallbacks::UpdateSettings(const settings::OAFIMSettings* settings,
                                               IPathMatcher* matcher) {
  std::lock_guard lock(m_mutex);
  m_settings = *settings;
  m_matcher = orn::RefPtr<IPathMatcher>(matcher);
  std::lock_guard ruleLock(m_ruleIdMutex);
  m_ruleId = settings->ruleId;
}

orn::types::string16_t IntegrityMonitorCallbacks::RuleId() const {
  std::lock_guard lock(m_ruleIdMutex);
  return m_ruleId;
}

bool IntegrityMonitorCallbacks::IsScanAreaAncestor(const NativePath& path) const {
  NativePath prefix = path;
  if (prefix.empty() || prefix.back() != '/') prefix.push_back('/');
  for (const settings::ScanArea& area : m_settings.scanAreas) {
    if (area.path.starts_with(prefix)) return true;
  }
  return false;
}

result_t IntegrityMonitorCallbacks::IsInScope(const NativePath& path, bool isDirectory) const {
  std::lock_guard lock(m_mutex);
  if (IsScanAreaAncestor(path)) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
        << kOnAccessPrefix << "Object " << path << " is a scan area parent";
    return orn::errors::kOk;
  }
  // Without a matcher (no settings yet) nothing is filtered out.
  if (m_matcher && m_matcher->Match(path, isDirectory) == orn::errors::kFalse) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
        << kOnAccessPrefix << "Object '" << path << "' is not in scan scope";
    return orn::errors::kNotFound;
  }
  return orn::errors::kOk;
}

result_t IntegrityMonitorCallbacks::OnEvent(const InotifyEvent& event) {
  try {
    ORN_TRACE(GetTracer(), orn::kTraceLevelDetail) << kOnAccessPrefix << __PRETTY_FUNCTION__;
    if (!event.error.empty()) {
      ORN_TRACE(GetTracer(), orn::kTraceLevelError)
          << kOnAccessPrefix << "Inotify service reported an error: " << event.error;
      return orn::errors::kUnspecified;
    }
    if (event.mask == 0 || IsInScope(event.path, event.isDirectory) != orn::errors::kOk) {
      ORN_TRACE(GetTracer(), orn::kTraceLevelDetail)
          << kOnAccessPrefix << "Skipping event for object: " << event.path;
      return orn::errors::kFalse;
    }
    return Report(event);
  } catch (...) {
    ORN_TRACE(GetTracer(), orn::kTraceLevelError) << kOnAccessPrefix << "Unexpected exception in "
                                                  << "OnEvent";
    return orn::errors::kUnspecified;
  }
}

result_t IntegrityMonitorCallbacks::Report(const InotifyEvent& event) {
  // The publisher service's subscribers learn of the change first; its
  // result does not stop the product event.
  (void)m_integrityMonitorPublisher->PublishDetectEvent(0, event.path, nullptr, nullptr);

  ProductEvent product = MakeIntegrityEvent(event_type::kSystemIntegrityIssue, severity::kCritical);
  if (!event.formerPath.empty())
    product.Add(field::kOriginalPath, FieldValue::Text8(event.formerPath));
  product.Add(field::kPath, FieldValue::Text8(event.path));
  product.Add(field::kFileModificationType, FieldValue::U32(event.mask));
  // Not under m_mutex: only the scope decision is serialised against
  // UpdateSettings, so an event racing with an update may carry either id.
  product.Add(field::kFimRuleId, FieldValue::Text16(RuleId()));
  product.Add(field::kTaskId, FieldValue::U64(kOnAccessTaskId));
  product.Add(field::kTaskType, FieldValue::Text16(TaskTypeText(task_type::kOnAccess)));
  product.Add(field::kTaskName, FieldValue::Text16(OnAccessTaskName()));
  return static_cast<result_t>(m_eventPublisher->Publish(product));
}

}  // namespace pax::fim
