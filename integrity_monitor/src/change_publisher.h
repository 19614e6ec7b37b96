// Builds the on-demand task's product events and hands them to the host's
// IEventPublisher (and object moves also to the module's publisher service).
//
// Headers come from MakeIntegrityEvent (integrity_event.h). Field order,
// per kind:
//
//   change events ("SystemIntegrityIssue", 67, severity Critical 0):
//     [attribute fields, attributes-changed only: 59, 65, 64, 60, 61, 58, 56]
//     54 FileModificationType (u32)
//     66 Path (narrow text)            } the file fields, the same for every
//     55 FileObjectType (u32)          } change kind: which object, and what
//                                      } kind of object (pax::object_type)
//     [63 OriginalPath, moved/renamed only (narrow text)]
//     then the task fields below.
//   "BaselineBuilt" (69, Informational 4): 66 Path = the area, task fields.
//   "SystemIntegrityOk" (68, Informational 4): task fields only.
//   "IntegrityMonitorError" (72, Error 5): 66 Path = the area,
//     68 FimErrorReason = the failure as "0x%08x (message)" (UTF-16),
//     task fields.
//   task fields (added by PublishEvent, last): 5 TaskName (display name, or
//     the default name when none is set), 8 TaskId, 7 RuntimeTaskId (u64),
//     69 FimRuleId (the settings' rule id), 12 TaskType "ODFIM".
//
// The digest is not part of the file fields: the snapshot a per-change
// publisher receives may be the one before the change, so its digest would
// mislead; the detect event of a move carries the digest instead.
//
// Used on the task's worker thread only; the context must outlive the
// publisher. Publish failures are traced once here and returned.
#pragma once

#include <cstdint>

#include "file_snapshot.h"
#include "on_demand_context.h"
#include "orn/result.h"
#include "pax/product_event.h"

namespace pax::fim {

// Appends the per-path file fields (66 Path, 55 FileObjectType).
void AddFileFields(ProductEvent& event, const NativePath& path, std::uint32_t fileType);

class ChangePublisher {
 public:
  explicit ChangePublisher(OnDemandContext& context);

  // Adds the task fields and sends the event; returns the publisher's
  // result (an exception becomes its result code).
  [[nodiscard]] result_t PublishEvent(ProductEvent& event);

  // One change event for one path. The snapshot identifies the object the
  // event describes (Compare decides which side it passes).
  [[nodiscard]] result_t PublishObjectCreatedEvent(const FileSnapshot& snap, const NativePath& path,
                                                   std::uint32_t fileType);
  [[nodiscard]] result_t PublishObjectDeletedEvent(const FileSnapshot& snap, const NativePath& path,
                                                   std::uint32_t fileType);
  // Always for a regular file (object type 0).
  [[nodiscard]] result_t PublishObjectContentChangedEvent(const FileSnapshot& snap,
                                                          const NativePath& path);
  [[nodiscard]] result_t PublishObjectAccessControlChangedEvent(const FileSnapshot& snap,
                                                                const NativePath& path,
                                                                std::uint32_t fileType);
  // Tells the publisher service (detect kind 1, old path, digest), then
  // publishes ObjectMoved (9) when the file name is unchanged, otherwise
  // ObjectRenamed (13), for the new path with OriginalPath = old path.
  [[nodiscard]] result_t PublishObjectRenamedEvent(const FileSnapshot& snap,
                                                   const NativePath& oldPath,
                                                   const NativePath& newPath,
                                                   std::uint32_t fileType);
  // Sends a copy of `attributes` (an attributes-changed event holding its
  // attribute fields and modification type) completed for one path.
  [[nodiscard]] result_t PublishAttributesChangedEvent(const ProductEvent& attributes,
                                                       const NativePath& path,
                                                       std::uint32_t fileType);

  [[nodiscard]] result_t PublishBaselineBuilt(const NativePath& areaPath,
                                              std::uint64_t scanScopeId);
  [[nodiscard]] result_t PublishSystemIntegrityOk();
  [[nodiscard]] result_t PublishIntegrityMonitorError(const NativePath& areaPath, result_t failure);

 private:
  result_t PublishChange(std::uint32_t modificationType, const NativePath& path,
                         std::uint32_t fileType);

  OnDemandContext& m_context;
};

}  // namespace pax::fim
