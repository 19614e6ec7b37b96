#include "pax/enumerations.h"

#include <iterator>

namespace pax {
namespace {

constexpr EnumRow kTaskState[] = {
    {0, "Starting"}, {1, "Started"},  {2, "Pausing"}, {3, "Suspended"},
    {4, "Resuming"}, {5, "Stopping"}, {6, "Stopped"}, {7, "Unknown"},
};

constexpr EnumRow kSeverity[] = {
    {0, "Critical"},       {1, "_deprecatedHigh"}, {2, "Warning"},
    {3, "_deprecatedLow"}, {4, "Informational"},   {5, "Error"},
};

constexpr EnumRow kFileModificationType[] = {
    {0, "Ignore"},
    {1, "ObjectAccessControlAttributesChanged"},
    {2, "ObjectAccessed"},
    {3, "ObjectAttributesChanged"},
    {4, "ObjectClosedAfterWrite"},
    {5, "ObjectClosedWithoutWrite"},
    {6, "ObjectContentChanged"},
    {7, "ObjectCreated"},
    {8, "ObjectDeleted"},
    {9, "ObjectMoved"},
    {10, "ObjectMovedFrom"},
    {11, "ObjectMovedTo"},
    {12, "ObjectOpened"},
    {13, "ObjectRenamed"},
    {14, "Unknown"},
};

constexpr EnumRow kFileObjectType[] = {
    {0, "File"},      {1, "Directory"},    {2, "CharacterDevice"}, {3, "BlockDevice"},
    {4, "NamedPipe"}, {5, "SymbolicLink"}, {6, "Socket"},
};

// Only the rows this product line defines for the integrity monitor; the
// rest of the 0..267 range has no row here and reads as absent.
constexpr EnumRow kProductEventType[] = {
    {0, "IntegrityCheckFailed"},
    {1, "TaskStateChanged"},
    {2, "TaskSettingsChanged"},
    {3, "TaskScheduleChanged"},
    {4, "TaskCreated"},
    {5, "TaskDeleted"},
    {6, "ThreatDetected"},
    {67, "SystemIntegrityIssue"},
    {68, "SystemIntegrityOk"},
    {69, "BaselineBuilt"},
    {70, "SystemIntegrityMonitorAlarmOverflow"},
    {71, "ObjectIntegrityCannotBeChecked"},
    {72, "IntegrityMonitorError"},
    {255, "IntegrityCheckOk"},
    {265, "ObjectRenamed"},
    {266, "ObjectRestored"},
    {267, "InvalidCriteriaInCustomCategory"},
};

constexpr EnumRow kEventFieldName[] = {
    {0, "FileName"},
    {1, "ObjectName"},
    {2, "_unused2"},
    {3, "_unused3"},
    {4, "ProcessResult"},
    {5, "TaskName"},
    {6, "SCTaskName"},
    {7, "RuntimeTaskId"},
    {8, "TaskId"},
    {9, "TaskState"},
    {10, "PrevTaskState"},
    {12, "TaskType"},
    {16, "FileOwner"},
    {17, "FileOwnerId"},
    {25, "FileSize"},
    {54, "FileModificationType"},
    {55, "FileObjectType"},
    {56, "LastAccessTime"},
    {57, "LastModificationTime"},
    {58, "LastStatusChangeTime"},
    {59, "LinkCount"},
    {60, "ObjectAttributes"},
    {61, "ObjectSize"},
    {62, "_unused62"},
    {63, "OriginalPath"},
    {64, "OwnerGroupId"},
    {65, "OwnerUserId"},
    {66, "Path"},
    {68, "FimErrorReason"},
    {69, "FimRuleId"},
    {114, "Md5Hash"},
    {122, "FileHash"},
    {123, "UniqueFileId"},
    {125, "Sha256Hash"},
    {144, "FileVersion"},
};

template <std::size_t N>
constexpr EnumTable MakeTable(const char* name, const EnumRow (&rows)[N]) {
  return EnumTable{name, rows, N};
}

}  // namespace

const EnumTable& TaskStateTable() {
  static constexpr EnumTable t = MakeTable("TaskState", kTaskState);
  return t;
}
const EnumTable& EventSeverityTable() {
  static constexpr EnumTable t = MakeTable("EventSeverity", kSeverity);
  return t;
}
const EnumTable& FileModificationTypeTable() {
  static constexpr EnumTable t = MakeTable("FileModificationType", kFileModificationType);
  return t;
}
const EnumTable& FileObjectTypeTable() {
  static constexpr EnumTable t = MakeTable("FileObjectType", kFileObjectType);
  return t;
}
const EnumTable& ProductEventTypeTable() {
  static constexpr EnumTable t = MakeTable("ProductEventType", kProductEventType);
  return t;
}
const EnumTable& EventFieldNameTable() {
  static constexpr EnumTable t = MakeTable("EventFieldName", kEventFieldName);
  return t;
}

std::optional<std::string_view> NameOf(const EnumTable& table, std::int32_t value) {
  for (std::size_t i = 0; i < table.count; ++i)
    if (table.rows[i].value == value) return std::string_view(table.rows[i].name);
  return std::nullopt;
}

std::optional<std::int32_t> ValueOf(const EnumTable& table, std::string_view name) {
  for (std::size_t i = 0; i < table.count; ++i)
    if (name == table.rows[i].name) return table.rows[i].value;
  return std::nullopt;
}

}  // namespace pax
