#include "host/output/event_format.h"

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string_view>

#include "host/output/host_events.h"
#include "host/util/display_text.h"
#include "orn/text.h"
#include "pax/enumerations.h"

namespace arvo::host {
namespace {

constexpr char kHex[] = "0123456789abcdef";

void AppendDisplayValue(std::string& out, const orn::types::string16_t& text) {
  std::string shown;
  AppendDisplay(shown, text);
  if (shown.empty() || shown.find(' ') != std::string::npos) {
    out.push_back('"');
    out += shown;
    out.push_back('"');
  } else {
    out += shown;
  }
}

void AppendNamedMember(std::string& out, const char* member, std::optional<std::string_view> name) {
  if (!name) return;
  out += ",\"";
  out += member;
  out += "\":";
  AppendJsonBytes(out, std::string(*name));
}

void AppendJsonValue(std::string& out, const pax::FieldValue& value) {
  switch (value.Tag()) {
    case pax::FieldTag::kUInt32:
      out += std::to_string(value.AsU32());
      break;
    case pax::FieldTag::kUInt64:
      out += std::to_string(value.AsU64());
      break;
    case pax::FieldTag::kText8:
      AppendJsonBytes(out, value.AsText8());
      break;
    case pax::FieldTag::kText16:
      AppendJsonString(out, value.AsText16());
      break;
  }
}

std::string LocalTime(std::int64_t seconds) {
  if (seconds < 0) return "-";
  const auto t = static_cast<std::time_t>(seconds);
  tm local{};
  if (!::localtime_r(&t, &local)) return std::to_string(seconds);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::string NameOr(std::optional<std::string_view> name, std::uint32_t value,
                   const char* fallback) {
  return name ? std::string(*name) : fallback + std::to_string(value);
}

std::string NameOr(const pax::EnumTable& table, std::uint32_t value, const char* fallback) {
  return NameOr(pax::NameOf(table, static_cast<std::int32_t>(value)), value, fallback);
}

const pax::EventField* FindField(const pax::ProductEvent& event, std::uint32_t id) {
  for (const pax::EventField& f : event.fields)
    if (f.fieldId == id) return &f;
  return nullptr;
}

void AppendDisplayField(std::string& out, const pax::FieldValue& value) {
  switch (value.Tag()) {
    case pax::FieldTag::kUInt32:
      out += std::to_string(value.AsU32());
      break;
    case pax::FieldTag::kUInt64:
      out += std::to_string(value.AsU64());
      break;
    case pax::FieldTag::kText8:
      AppendDisplayValue(out, orn::text::NarrowToWide(value.AsText8()));
      break;
    case pax::FieldTag::kText16:
      AppendDisplayValue(out, value.AsText16());
      break;
  }
}

const char* DetectTypeName(std::uint32_t type) {
  switch (type) {
    case 0:
      return "Change";
    case 1:
      return "RenamedOrMoved";
    default:
      return nullptr;
  }
}

std::string DigestHex(const pax::Sha256Digest& digest) {
  std::string hex;
  hex.reserve(64);
  for (const std::uint8_t b : digest) {
    hex.push_back(kHex[b >> 4]);
    hex.push_back(kHex[b & 0xF]);
  }
  return hex;
}

}  // namespace

void AppendJsonString(std::string& out, const orn::types::string16_t& text) {
  out.push_back('"');
  orn::text::ForEachCodePoint(text, [&](std::uint32_t cp, bool lone) {
    switch (cp) {
      case '"':
        out += "\\\"";
        return;
      case '\\':
        out += "\\\\";
        return;
      case '\b':
        out += "\\b";
        return;
      case '\f':
        out += "\\f";
        return;
      case '\n':
        out += "\\n";
        return;
      case '\r':
        out += "\\r";
        return;
      case '\t':
        out += "\\t";
        return;
      default:
        break;
    }
    if (lone || cp < 0x20 || cp == 0x7F) {
      AppendEscape(out, 'u', cp, 4);
    } else {
      orn::text::AppendUtf8(out, cp);
    }
  });
  out.push_back('"');
}

void AppendJsonBytes(std::string& out, const orn::types::string8_t& bytes) {
  AppendJsonString(out, orn::text::NarrowToWide(bytes));
}

namespace {

void AppendJsonOrigin(std::string& out, const ProcessOrigin& origin) {
  out += ",\"process\":{\"pid\":" + std::to_string(origin.pid);
  if (origin.exited || origin.hidden) {
    out += origin.exited ? ",\"exited\":true}" : ",\"hidden\":true}";
    return;
  }
  out += ",\"ppid\":" + std::to_string(origin.parentPid);
  if (origin.uid) out += ",\"uid\":" + std::to_string(*origin.uid);
  if (origin.loginUid) out += ",\"loginUid\":" + std::to_string(*origin.loginUid);
  if (!origin.executable.empty()) {
    out += ",\"executable\":";
    AppendJsonBytes(out, origin.executable);
  }
  if (!origin.command.empty()) {
    out += ",\"command\":";
    AppendJsonBytes(out, origin.command);
  }
  out.push_back('}');
}

void AppendTextOrigin(std::string& out, const ProcessOrigin& origin) {
  out += " process=" + std::to_string(origin.pid);
  if (origin.exited || origin.hidden) {
    out += origin.exited ? "(exited)" : "(hidden)";
    return;
  }
  out += " ppid=" + std::to_string(origin.parentPid);
  if (origin.uid) out += " uid=" + std::to_string(*origin.uid);
  if (origin.loginUid) out += " loginuid=" + std::to_string(*origin.loginUid);
  if (!origin.executable.empty()) {
    out += " exe=";
    AppendDisplay(out, orn::text::NarrowToWide(origin.executable));
  }
  if (!origin.command.empty()) {
    out += " comm=";
    AppendDisplay(out, orn::text::NarrowToWide(origin.command));
  }
}

}  // namespace

std::string FormatEventJson(const pax::ProductEvent& event, const ProcessOrigin* origin) {
  std::string out;
  out.reserve(256);
  out += "{\"id\":" + std::to_string(event.id);
  out += ",\"eventType\":" + std::to_string(event.eventType);
  AppendNamedMember(out, "eventTypeName", EventTypeName(event.eventType));
  out += ",\"severity\":" + std::to_string(event.severity);
  AppendNamedMember(
      out, "severityName",
      pax::NameOf(pax::EventSeverityTable(), static_cast<std::int32_t>(event.severity)));
  out += ",\"time\":" + std::to_string(event.time);
  out += ",\"fields\":[";
  bool first = true;
  for (const pax::EventField& field : event.fields) {
    if (!first) out.push_back(',');
    first = false;
    out += "{\"id\":" + std::to_string(field.fieldId);
    AppendNamedMember(out, "name", FieldName(field.fieldId));
    out += ",\"value\":";
    AppendJsonValue(out, field.value);
    out.push_back('}');
  }
  out.push_back(']');
  if (origin) AppendJsonOrigin(out, *origin);
  out.push_back('}');
  return out;
}

std::string FormatEventText(const pax::ProductEvent& event, const ProcessOrigin* origin) {
  return LocalTime(event.time) + ' ' + FormatEventSummary(event, origin);
}

std::string FormatEventSummary(const pax::ProductEvent& event, const ProcessOrigin* origin) {
  std::string out = NameOr(EventTypeName(event.eventType), event.eventType, "EventType");
  out += ' ' + NameOr(pax::EventSeverityTable(), event.severity, "Severity");
  const pax::EventField* path = FindField(event, pax::field::kPath);
  if (path) {
    out.push_back(' ');
    AppendDisplayField(out, path->value);
  }
  const pax::EventField* modification = FindField(event, pax::field::kFileModificationType);
  if (modification && modification->value.Tag() == pax::FieldTag::kUInt32)
    out +=
        ' ' + NameOr(pax::FileModificationTypeTable(), modification->value.AsU32(), "Modification");
  for (const pax::EventField& field : event.fields) {
    if (&field == path || &field == modification) continue;
    out += ' ' + NameOr(FieldName(field.fieldId), field.fieldId, "Field") + '=';
    if (field.fieldId == pax::field::kFileObjectType &&
        field.value.Tag() == pax::FieldTag::kUInt32) {
      out += NameOr(pax::FileObjectTypeTable(), field.value.AsU32(), "");
    } else {
      AppendDisplayField(out, field.value);
    }
  }
  if (origin) AppendTextOrigin(out, *origin);
  return out;
}

std::string FormatDetectJson(const pax::DetectEvent& event) {
  std::string out = "{\"detectType\":" + std::to_string(event.detectType);
  if (const char* name = DetectTypeName(event.detectType)) {
    out += ",\"detectTypeName\":\"";
    out += name;
    out.push_back('"');
  }
  out += ",\"path\":";
  AppendJsonBytes(out, event.path);
  if (event.digest) out += ",\"sha256\":\"" + DigestHex(*event.digest) + '"';
  out.push_back('}');
  return out;
}

std::string FormatDetectText(const pax::DetectEvent& event) {
  std::string out = LocalTime(std::time(nullptr)) + " detection ";
  const char* name = DetectTypeName(event.detectType);
  out += name ? name : "Kind" + std::to_string(event.detectType);
  out.push_back(' ');
  AppendDisplay(out, orn::text::NarrowToWide(event.path));
  if (event.digest) out += " sha256=" + DigestHex(*event.digest);
  return out;
}

}  // namespace arvo::host
