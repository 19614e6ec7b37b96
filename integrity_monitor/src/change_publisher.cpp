#include "change_publisher.h"

#include <exception>
#include <string>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "integrity_event.h"
#include "orn/text.h"
#include "pax/enumerations.h"

namespace pax::fim {

namespace {

// The last path component (the whole path when it has no '/').
std::string FileName(const NativePath& path) {
  const std::size_t slash = path.rfind('/');
  return slash == NativePath::npos ? path : path.substr(slash + 1);
}

}  // namespace

void AddFileFields(ProductEvent& event, const NativePath& path, std::uint32_t fileType) {
  event.Add(field::kPath, FieldValue::Text8(path));
  event.Add(field::kFileObjectType, FieldValue::U32(fileType));
}

ChangePublisher::ChangePublisher(OnDemandContext& context) : m_context(context) {}

result_t ChangePublisher::PublishEvent(ProductEvent& event) {
  try {
    const TaskInfo empty;
    const TaskInfo& info = m_context.taskInfo ? *m_context.taskInfo : empty;
    event.Add(field::kTaskName,
              FieldValue::Text16(info.displayName.empty() ? info.defaultName : info.displayName));
    event.Add(field::kTaskId, FieldValue::U64(info.taskId));
    event.Add(field::kRuntimeTaskId, FieldValue::U64(info.runtimeTaskId));
    event.Add(field::kFimRuleId, FieldValue::Text16(m_context.settings ? m_context.settings->ruleId
                                                                       : orn::types::string16_t()));
    event.Add(field::kTaskType, FieldValue::Text16(TaskTypeText(task_type::kOnDemand)));
    if (!m_context.eventPublisher) return orn::errors::kNotInitialized;
    return static_cast<result_t>(m_context.eventPublisher->Publish(event));
  } catch (...) {
    ORN_TRACE(m_context.tracer, orn::kTraceLevelDetail) << kOdfimPrefix << "Unexpected error in "
                                                        << "PublishEvent";
    return orn::ExceptionToResult(nullptr, nullptr);
  }
}

result_t ChangePublisher::PublishChange(std::uint32_t modificationType, const NativePath& path,
                                        std::uint32_t fileType) {
  ProductEvent event = MakeIntegrityEvent(event_type::kSystemIntegrityIssue, severity::kCritical);
  event.Add(field::kFileModificationType, FieldValue::U32(modificationType));
  AddFileFields(event, path, fileType);
  return ORN_CHECK(m_context.tracer, PublishEvent(event),
                   "Cannot publish event for '" << path << "'");
}

result_t ChangePublisher::PublishObjectCreatedEvent(const FileSnapshot& /*snap*/,
                                                    const NativePath& path,
                                                    std::uint32_t fileType) {
  return PublishChange(modification::kObjectCreated, path, fileType);
}

result_t ChangePublisher::PublishObjectDeletedEvent(const FileSnapshot& /*snap*/,
                                                    const NativePath& path,
                                                    std::uint32_t fileType) {
  return PublishChange(modification::kObjectDeleted, path, fileType);
}

result_t ChangePublisher::PublishObjectContentChangedEvent(const FileSnapshot& /*snap*/,
                                                           const NativePath& path) {
  return PublishChange(modification::kObjectContentChanged, path, object_type::kFile);
}

result_t ChangePublisher::PublishObjectAccessControlChangedEvent(const FileSnapshot& /*snap*/,
                                                                 const NativePath& path,
                                                                 std::uint32_t fileType) {
  return PublishChange(modification::kObjectAccessControlAttributesChanged, path, fileType);
}

result_t ChangePublisher::PublishObjectRenamedEvent(const FileSnapshot& snap,
                                                    const NativePath& oldPath,
                                                    const NativePath& newPath,
                                                    std::uint32_t fileType) {
  try {
    if (m_context.integrityMonitorPublisher)
      (void)m_context.integrityMonitorPublisher->PublishDetectEvent(1, oldPath, &snap.sha256,
                                                                    nullptr);
    ProductEvent event = MakeIntegrityEvent(event_type::kSystemIntegrityIssue, severity::kCritical);
    const bool moved = FileName(oldPath) == FileName(newPath);
    event.Add(field::kFileModificationType,
              FieldValue::U32(moved ? modification::kObjectMoved : modification::kObjectRenamed));
    AddFileFields(event, newPath, fileType);
    event.Add(field::kOriginalPath, FieldValue::Text8(oldPath));
    return ORN_CHECK(m_context.tracer, PublishEvent(event),
                     "Cannot publish event for '" << newPath << "'");
  } catch (...) {
    return orn::ExceptionToResult(m_context.tracer,
                                  "Unexpected error in PublishObjectRenamedEvent: ");
  }
}

result_t ChangePublisher::PublishAttributesChangedEvent(const ProductEvent& attributes,
                                                        const NativePath& path,
                                                        std::uint32_t fileType) {
  ProductEvent event = attributes;
  AddFileFields(event, path, fileType);
  return ORN_CHECK(m_context.tracer, PublishEvent(event),
                   "Cannot publish event for '" << path << "'");
}

result_t ChangePublisher::PublishBaselineBuilt(const NativePath& areaPath,
                                               std::uint64_t /*scanScopeId*/) {
  ProductEvent event = MakeIntegrityEvent(event_type::kBaselineBuilt, severity::kInformational);
  event.Add(field::kPath, FieldValue::Text8(areaPath));
  return ORN_CHECK(m_context.tracer, PublishEvent(event),
                   "Cannot publish BaselineBuilt event for '" << areaPath << "'");
}

result_t ChangePublisher::PublishSystemIntegrityOk() {
  ProductEvent event = MakeIntegrityEvent(event_type::kSystemIntegrityOk, severity::kInformational);
  return ORN_CHECK(m_context.tracer, PublishEvent(event), "Cannot publish SystemIntegrityOk event");
}

result_t ChangePublisher::PublishIntegrityMonitorError(const NativePath& areaPath,
                                                       result_t failure) {
  ProductEvent event = MakeIntegrityEvent(event_type::kIntegrityMonitorError, severity::kError);
  event.Add(field::kPath, FieldValue::Text8(areaPath));
  event.Add(field::kFimErrorReason,
            FieldValue::Text16(orn::text::NarrowToWide(orn::ResultToTraceText(failure))));
  return ORN_CHECK(m_context.tracer, PublishEvent(event),
                   "Cannot publish IntegrityMonitorError event for '" << areaPath << "'");
}

}  // namespace pax::fim
