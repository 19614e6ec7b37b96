// The product's shared vocabulary: numeric codes that travel in events and
// settings, and their name tables (settings/enumerations.cpp holds the rows).
//
// Tables carry only the rows the vocabulary defines for this module; a value or name without a row
// is reported as absent. Every table is constant data, in place from the
// moment the module is loaded: no code runs to build them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace pax {

enum class TaskState : std::uint32_t {
  kStarting = 0,
  kStarted = 1,
  kPausing = 2,
  kSuspended = 3,
  kResuming = 4,
  kStopping = 5,
  kStopped = 6,
  kUnknown = 7,
};

namespace event_type {
inline constexpr std::uint32_t kIntegrityCheckFailed = 0;
inline constexpr std::uint32_t kTaskStateChanged = 1;
inline constexpr std::uint32_t kSystemIntegrityIssue = 67;
inline constexpr std::uint32_t kSystemIntegrityOk = 68;
inline constexpr std::uint32_t kBaselineBuilt = 69;
inline constexpr std::uint32_t kSystemIntegrityMonitorAlarmOverflow = 70;
inline constexpr std::uint32_t kObjectIntegrityCannotBeChecked = 71;
inline constexpr std::uint32_t kIntegrityMonitorError = 72;
inline constexpr std::uint32_t kIntegrityCheckOk = 255;
}  // namespace event_type

namespace severity {
inline constexpr std::uint32_t kCritical = 0;
inline constexpr std::uint32_t kWarning = 2;
inline constexpr std::uint32_t kInformational = 4;
inline constexpr std::uint32_t kError = 5;
}  // namespace severity

namespace field {
inline constexpr std::uint32_t kFileName = 0;
inline constexpr std::uint32_t kTaskName = 5;
inline constexpr std::uint32_t kRuntimeTaskId = 7;
inline constexpr std::uint32_t kTaskId = 8;
inline constexpr std::uint32_t kTaskState = 9;
inline constexpr std::uint32_t kPrevTaskState = 10;
inline constexpr std::uint32_t kTaskType = 12;
inline constexpr std::uint32_t kFileOwner = 16;
inline constexpr std::uint32_t kFileOwnerId = 17;
inline constexpr std::uint32_t kFileSize = 25;
inline constexpr std::uint32_t kFileModificationType = 54;
inline constexpr std::uint32_t kFileObjectType = 55;
inline constexpr std::uint32_t kLastAccessTime = 56;
inline constexpr std::uint32_t kLastModificationTime = 57;
inline constexpr std::uint32_t kLastStatusChangeTime = 58;
inline constexpr std::uint32_t kLinkCount = 59;
inline constexpr std::uint32_t kObjectAttributes = 60;
inline constexpr std::uint32_t kObjectSize = 61;
inline constexpr std::uint32_t kOriginalPath = 63;
inline constexpr std::uint32_t kOwnerGroupId = 64;
inline constexpr std::uint32_t kOwnerUserId = 65;
inline constexpr std::uint32_t kPath = 66;
inline constexpr std::uint32_t kFimErrorReason = 68;
inline constexpr std::uint32_t kFimRuleId = 69;
inline constexpr std::uint32_t kSha256Hash = 125;
}  // namespace field

namespace modification {
inline constexpr std::uint32_t kIgnore = 0;
inline constexpr std::uint32_t kObjectAccessControlAttributesChanged = 1;
inline constexpr std::uint32_t kObjectAccessed = 2;
inline constexpr std::uint32_t kObjectAttributesChanged = 3;
inline constexpr std::uint32_t kObjectClosedAfterWrite = 4;
inline constexpr std::uint32_t kObjectClosedWithoutWrite = 5;
inline constexpr std::uint32_t kObjectContentChanged = 6;
inline constexpr std::uint32_t kObjectCreated = 7;
inline constexpr std::uint32_t kObjectDeleted = 8;
inline constexpr std::uint32_t kObjectMoved = 9;
inline constexpr std::uint32_t kObjectMovedFrom = 10;
inline constexpr std::uint32_t kObjectMovedTo = 11;
inline constexpr std::uint32_t kObjectOpened = 12;
inline constexpr std::uint32_t kObjectRenamed = 13;
inline constexpr std::uint32_t kUnknown = 14;
}  // namespace modification

namespace object_type {
inline constexpr std::uint32_t kFile = 0;
inline constexpr std::uint32_t kDirectory = 1;
inline constexpr std::uint32_t kCharacterDevice = 2;
inline constexpr std::uint32_t kBlockDevice = 3;
inline constexpr std::uint32_t kNamedPipe = 4;
inline constexpr std::uint32_t kSymbolicLink = 5;
inline constexpr std::uint32_t kSocket = 6;
}  // namespace object_type

// Rows of the integrity monitor's task-type table (FimTaskTypeTable).
namespace task_type {
inline constexpr std::int32_t kOnAccess = 0;  // "OAFIM"
inline constexpr std::int32_t kOnDemand = 1;  // "ODFIM"
}  // namespace task_type

struct EnumRow {
  std::int32_t value;
  const char* name;
};

struct EnumTable {
  const char* name;  // the enumeration's own name, e.g. "EventFieldName"
  const EnumRow* rows;
  std::size_t count;
};

// The tables the integrity monitor relies on.
const EnumTable& TaskStateTable();
const EnumTable& EventSeverityTable();
const EnumTable& FileModificationTypeTable();
const EnumTable& FileObjectTypeTable();
const EnumTable& ProductEventTypeTable();
const EnumTable& EventFieldNameTable();
// The task types of the integrity monitor: the texts of the "TaskType" field.
const EnumTable& FimTaskTypeTable();

// The other thirteen enumerations of the vocabulary, known here by their
// first rows (the integrity monitor uses none of them), in its order:
// "Boolean", "DetectCertainty", "DetectDanger", "StorageObjectType",
// "ScanLevel", "ScheduleFrequency", "ProcessExitReason", "IpVersion",
// "UpdateMode", "DeviceBus", "ServiceState", "CertificateEncoding",
// "EventExportFormat" (the names are ours).
const EnumTable* OtherVocabularyTables(std::size_t& count);

// The table named `name` (EnumTable::name), or null.
const EnumTable* FindTable(std::string_view name);

// Lookups by value and by name (exact, case-sensitive); nullopt when absent.
std::optional<std::string_view> NameOf(const EnumTable& table, std::int32_t value);
std::optional<std::int32_t> ValueOf(const EnumTable& table, std::string_view name);

}  // namespace pax
