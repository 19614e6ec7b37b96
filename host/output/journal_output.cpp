#include "host/output/journal_output.h"

#include <sys/uio.h>
#include <systemd/sd-journal.h>

#include <cctype>
#include <new>

#include "host/output/event_format.h"
#include "host/output/host_events.h"
#include "host/util/process_origin.h"
#include "orn/text.h"
#include "pax/enumerations.h"

namespace arvo::host {
namespace {

constexpr char kPrefix[] = "ARVO_FIM_";

bool IsUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool IsLowerOrDigit(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

// "OriginalPath" -> "ORIGINAL_PATH", "Sha256Hash" -> "SHA256_HASH",
// "SCTaskName" -> "SC_TASK_NAME". Empty when the name cannot be a journal
// field name (it must start with a letter and hold only letters and digits).
std::string UpperSnake(std::string_view name) {
  if (name.empty() || !std::isalpha(static_cast<unsigned char>(name[0]))) return {};
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (!std::isalnum(static_cast<unsigned char>(c))) return {};
    const bool wordStart =
        i > 0 && IsUpper(c) &&
        (IsLowerOrDigit(name[i - 1]) ||
         (IsUpper(name[i - 1]) && i + 1 < name.size() && IsLowerOrDigit(name[i + 1])));
    if (wordStart) out.push_back('_');
    out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  }
  return out;
}

std::string NameOrNumber(std::optional<std::string_view> name, std::uint32_t value) {
  return name ? std::string(*name) : std::to_string(value);
}

std::string ValueBytes(const pax::FieldValue& value) {
  switch (value.Tag()) {
    case pax::FieldTag::kUInt32:
      return std::to_string(value.AsU32());
    case pax::FieldTag::kUInt64:
      return std::to_string(value.AsU64());
    case pax::FieldTag::kText8:
      return value.AsText8();
    case pax::FieldTag::kText16:
      return orn::text::WideToNarrow(value.AsText16());
  }
  return {};
}

JournalField FieldOf(const pax::EventField& field) {
  const bool enumerated = field.value.Tag() == pax::FieldTag::kUInt32;
  if (field.fieldId == pax::field::kFileModificationType && enumerated) {
    const std::uint32_t v = field.value.AsU32();
    return {std::string(kPrefix) + "MODIFICATION",
            NameOrNumber(pax::NameOf(pax::FileModificationTypeTable(), static_cast<int>(v)), v)};
  }
  if (field.fieldId == pax::field::kFileObjectType && enumerated) {
    const std::uint32_t v = field.value.AsU32();
    return {std::string(kPrefix) + "OBJECT_TYPE",
            NameOrNumber(pax::NameOf(pax::FileObjectTypeTable(), static_cast<int>(v)), v)};
  }
  const auto name = FieldName(field.fieldId);
  std::string suffix = name ? UpperSnake(*name) : std::string();
  if (suffix.empty()) suffix = "FIELD_" + std::to_string(field.fieldId);
  return {kPrefix + suffix, ValueBytes(field.value)};
}

void AppendOrigin(const ProcessOrigin& origin, std::vector<JournalField>& entry) {
  entry.emplace_back("ARVO_FIM_PROCESS_PID", std::to_string(origin.pid));
  if (origin.exited || origin.hidden) {
    entry.emplace_back(origin.exited ? "ARVO_FIM_PROCESS_EXITED" : "ARVO_FIM_PROCESS_HIDDEN", "1");
    return;
  }
  entry.emplace_back("ARVO_FIM_PROCESS_PPID", std::to_string(origin.parentPid));
  if (origin.uid) entry.emplace_back("ARVO_FIM_PROCESS_UID", std::to_string(*origin.uid));
  if (origin.loginUid)
    entry.emplace_back("ARVO_FIM_PROCESS_LOGINUID", std::to_string(*origin.loginUid));
  if (!origin.executable.empty()) entry.emplace_back("ARVO_FIM_PROCESS_EXE", origin.executable);
  if (!origin.command.empty()) entry.emplace_back("ARVO_FIM_PROCESS_COMM", origin.command);
}

}  // namespace

int JournalPriority(std::uint32_t severity) {
  switch (severity) {
    case pax::severity::kCritical:
      return 2;
    case pax::severity::kError:
      return 3;
    case pax::severity::kWarning:
      return 4;
    case pax::severity::kInformational:
      return 6;
    default:
      return 5;
  }
}

std::vector<JournalField> JournalEntry(const pax::ProductEvent& event,
                                       const ProcessOrigin* origin) {
  std::vector<JournalField> entry;
  entry.reserve(event.fields.size() + 15);
  entry.emplace_back("MESSAGE", FormatEventSummary(event));
  entry.emplace_back("PRIORITY", std::to_string(JournalPriority(event.severity)));
  entry.emplace_back("SYSLOG_IDENTIFIER", "arvo-fim");
  entry.emplace_back("ARVO_FIM_TYPE",
                     NameOrNumber(EventTypeName(event.eventType), event.eventType));
  entry.emplace_back("ARVO_FIM_TYPE_ID", std::to_string(event.eventType));
  entry.emplace_back(
      "ARVO_FIM_SEVERITY",
      NameOrNumber(pax::NameOf(pax::EventSeverityTable(), static_cast<int>(event.severity)),
                   event.severity));
  entry.emplace_back("ARVO_FIM_EVENT_ID", std::to_string(event.id));
  if (event.time >= 0) entry.emplace_back("ARVO_FIM_TIME", std::to_string(event.time));
  for (const pax::EventField& field : event.fields) entry.push_back(FieldOf(field));
  if (origin) AppendOrigin(*origin, entry);
  return entry;
}

orn::result_t JournalOutput::Publish(const pax::ProductEvent& event) {
  try {
    std::vector<std::string> items;
    for (auto& [name, value] : JournalEntry(event, CurrentProcessOrigin()))
      items.push_back(name + '=' + value);
    std::vector<iovec> iov(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) iov[i] = {items[i].data(), items[i].size()};
    const int r = ::sd_journal_sendv(iov.data(), static_cast<int>(iov.size()));
    return r < 0 ? orn::ResultFromErrno(-r) : orn::errors::kOk;
  } catch (const std::bad_alloc&) {
    return orn::errors::kOutOfMemory;
  }
}

}  // namespace arvo::host
