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

// The other enumerations of the shared vocabulary, with the rows this
// module knows (their first rows); the integrity monitor uses none of them.
// Rows not known here are absent (the danger table's sixth row).
constexpr EnumRow kBoolean[] = {{0, "No"}, {1, "Yes"}};
constexpr EnumRow kDetectCertainty[] = {
    {0, "Unknown"}, {1, "Sure"}, {2, "Warning"}, {3, "Suspicion"}};
constexpr EnumRow kDetectDanger[] = {
    {0, "Unknown"}, {1, "High"}, {2, "Medium"}, {3, "Low"}, {4, "Informational"}};
constexpr EnumRow kStorageObjectType[] = {
    {0, "Quarantine"}, {1, "Backup"}, {2, "UserAdded"}, {3, "Untreated"}, {4, "Unknown"}};
constexpr EnumRow kScanLevel[] = {{0, "Light"}, {1, "Medium"}, {2, "Deep"}, {3, "Recommended"}};
constexpr EnumRow kScheduleFrequency[] = {
    {0, "Daily"}, {1, "Weekly"}, {2, "Monthly"}, {3, "Never"}};
constexpr EnumRow kProcessExitReason[] = {{0, "NormalExit"},
                                          {1, "Crash"},
                                          {2, "Freeze"},
                                          {3, "MemoryLimitExceeded"},
                                          {4, "GenericFailure"}};
constexpr EnumRow kIpVersion[] = {{0, "IPv4"}, {1, "IPv6"}};
constexpr EnumRow kUpdateMode[] = {{0, "Disabled"}, {1, "DownloadOnly"}, {2, "DownloadAndInstall"}};
constexpr EnumRow kDeviceBus[] = {{0, "UnknownBus"}, {1, "USB"}, {2, "Firewire"}};
constexpr EnumRow kServiceState[] = {{0, "Stopped"}, {1, "Running"}, {2, "Malfunction"}};
constexpr EnumRow kCertificateEncoding[] = {{0, "DER"}, {1, "PEM"}};
constexpr EnumRow kEventExportFormat[] = {{0, "JSON"}, {1, "CEF"}};

// The integrity monitor's task types; the texts travel in the "TaskType"
// field of events (the values are this module's own and never travel).
constexpr EnumRow kFimTaskType[] = {{task_type::kOnAccess, "OAFIM"},
                                    {task_type::kOnDemand, "ODFIM"}};

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

const EnumTable& FimTaskTypeTable() {
  static constexpr EnumTable t = MakeTable("FimTaskType", kFimTaskType);
  return t;
}

const EnumTable* OtherVocabularyTables(std::size_t& count) {
  // Constant-initialised, like every table here: nothing runs at load.
  static constexpr EnumTable kTables[] = {
      MakeTable("Boolean", kBoolean),
      MakeTable("DetectCertainty", kDetectCertainty),
      MakeTable("DetectDanger", kDetectDanger),
      MakeTable("StorageObjectType", kStorageObjectType),
      MakeTable("ScanLevel", kScanLevel),
      MakeTable("ScheduleFrequency", kScheduleFrequency),
      MakeTable("ProcessExitReason", kProcessExitReason),
      MakeTable("IpVersion", kIpVersion),
      MakeTable("UpdateMode", kUpdateMode),
      MakeTable("DeviceBus", kDeviceBus),
      MakeTable("ServiceState", kServiceState),
      MakeTable("CertificateEncoding", kCertificateEncoding),
      MakeTable("EventExportFormat", kEventExportFormat),
  };
  count = std::size(kTables);
  return kTables;
}

const EnumTable* FindTable(std::string_view name) {
  for (const EnumTable* table :
       {&TaskStateTable(), &EventSeverityTable(), &FileModificationTypeTable(),
        &FileObjectTypeTable(), &ProductEventTypeTable(), &EventFieldNameTable(),
        &FimTaskTypeTable()})
    if (name == table->name) return table;
  std::size_t count = 0;
  const EnumTable* others = OtherVocabularyTables(count);
  for (std::size_t i = 0; i < count; ++i)
    if (name == others[i].name) return &others[i];
  return nullptr;
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
