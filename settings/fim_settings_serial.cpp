#include "settings/fim_settings_serial.h"

#include <cstdint>
#include <new>
#include <string>
#include <vector>

namespace orn::serial {
namespace {

using pax::settings::ExclusionEntry;
using pax::settings::ODFIMSettings;
using pax::settings::ScanArea;
using Kind = Value::Kind;

Value Flag(bool b) { return Value::UInt(b ? 1 : 0); }

Value PathList(const std::vector<pax::NativePath>& paths) {
  Value list = Value::List();
  for (const pax::NativePath& p : paths) list.items.push_back(Value::Bytes(p));
  return list;
}

Value EntryToValue(const ExclusionEntry& e) {
  Value r = Value::Record();
  r.fields.emplace_back("comment", Value::Text(e.comment));
  r.fields.emplace_back("pattern", Value::Bytes(e.pattern));
  r.fields.emplace_back("exceptions", PathList(e.exceptions));
  r.fields.emplace_back("enabled", Flag(e.enabled));
  return r;
}

Value EntryList(const std::vector<ExclusionEntry>& entries) {
  Value list = Value::List();
  for (const ExclusionEntry& e : entries) list.items.push_back(EntryToValue(e));
  return list;
}

Value AreaToValue(const ScanArea& a) {
  Value r = Value::Record();
  r.fields.emplace_back("areaName", Value::Text(a.areaName));
  r.fields.emplace_back("areaFlag", Flag(a.areaFlag));
  r.fields.emplace_back("path", Value::Bytes(a.path));
  r.fields.emplace_back("localExclusions", EntryList(a.localExclusions));
  return r;
}

Value SettingsToValue(const void* record) {
  const auto& s = *static_cast<const ODFIMSettings*>(record);
  Value areas = Value::List();
  for (const ScanArea& a : s.scanAreas) areas.items.push_back(AreaToValue(a));
  Value r = Value::Record();
  r.fields.emplace_back("scanAreas", std::move(areas));
  r.fields.emplace_back("globalExclusions", EntryList(s.globalExclusions));
  r.fields.emplace_back("excludeMode", Value::UInt(s.excludeMode));
  r.fields.emplace_back("excludeMasks", PathList(s.excludeMasks));
  r.fields.emplace_back("ruleId", Value::Text(s.ruleId));
  r.fields.emplace_back("autoUpdateBaseline", Flag(s.autoUpdateBaseline));
  r.fields.emplace_back("computeContentHash", Flag(s.computeContentHash));
  r.fields.emplace_back("globalOption3", Flag(s.globalOption3));
  r.fields.emplace_back("reportAccessTime", Flag(s.reportAccessTime));
  return r;
}

// Readers: each returns false when the field is missing or of another kind.
const Value* Field(const Value& rec, const char* name, Kind kind) {
  const Value* v = rec.kind == Kind::kRecord ? rec.Field(name) : nullptr;
  return v && v->kind == kind ? v : nullptr;
}

bool ReadFlag(const Value& rec, const char* name, bool& out) {
  const Value* v = Field(rec, name, Kind::kUInt);
  if (!v || v->number > 1) return false;
  out = v->number == 1;
  return true;
}

bool ReadText(const Value& rec, const char* name, types::string16_t& out) {
  const Value* v = Field(rec, name, Kind::kText16);
  if (v) out = v->text;
  return v != nullptr;
}

bool ReadBytes(const Value& rec, const char* name, types::string8_t& out) {
  const Value* v = Field(rec, name, Kind::kBytes);
  if (v) out = v->bytes;
  return v != nullptr;
}

bool ReadPaths(const Value& rec, const char* name, std::vector<pax::NativePath>& out) {
  const Value* v = Field(rec, name, Kind::kList);
  if (!v) return false;
  out.clear();
  for (const Value& item : v->items) {
    if (item.kind != Kind::kBytes) return false;
    out.push_back(item.bytes);
  }
  return true;
}

bool ReadEntries(const Value& rec, const char* name, std::vector<ExclusionEntry>& out) {
  const Value* v = Field(rec, name, Kind::kList);
  if (!v) return false;
  out.clear();
  for (const Value& item : v->items) {
    ExclusionEntry e;
    if (!ReadText(item, "comment", e.comment) || !ReadBytes(item, "pattern", e.pattern) ||
        !ReadPaths(item, "exceptions", e.exceptions) || !ReadFlag(item, "enabled", e.enabled))
      return false;
    out.push_back(std::move(e));
  }
  return true;
}

bool ReadAreas(const Value& rec, std::vector<ScanArea>& out) {
  const Value* v = Field(rec, "scanAreas", Kind::kList);
  if (!v) return false;
  out.clear();
  for (const Value& item : v->items) {
    ScanArea a;
    if (!ReadText(item, "areaName", a.areaName) || !ReadFlag(item, "areaFlag", a.areaFlag) ||
        !ReadBytes(item, "path", a.path) ||
        !ReadEntries(item, "localExclusions", a.localExclusions))
      return false;
    out.push_back(std::move(a));
  }
  return true;
}

bool SettingsFromValue(const Value& value, void* record) {
  // Read into a fresh record so that a refused tree leaves `record` as it was.
  ODFIMSettings s;
  const Value* mode = Field(value, "excludeMode", Kind::kUInt);
  if (!mode || mode->number > UINT32_MAX) return false;
  s.excludeMode = static_cast<std::uint32_t>(mode->number);
  if (!ReadAreas(value, s.scanAreas) ||
      !ReadEntries(value, "globalExclusions", s.globalExclusions) ||
      !ReadPaths(value, "excludeMasks", s.excludeMasks) || !ReadText(value, "ruleId", s.ruleId) ||
      !ReadFlag(value, "autoUpdateBaseline", s.autoUpdateBaseline) ||
      !ReadFlag(value, "computeContentHash", s.computeContentHash) ||
      !ReadFlag(value, "globalOption3", s.globalOption3) ||
      !ReadFlag(value, "reportAccessTime", s.reportAccessTime))
    return false;
  *static_cast<ODFIMSettings*>(record) = std::move(s);
  return true;
}

void* Create() { return new (std::nothrow) ODFIMSettings(); }
void Destroy(void* record) { delete static_cast<ODFIMSettings*>(record); }

}  // namespace

const TypeDescriptor& SerializableType<pax::settings::ODFIMSettings>::Get() {
  static const TypeDescriptor kDescriptor{pax::settings::kODFIMSettingsTypeId,
                                          "ODFIMSettings",
                                          &Create,
                                          &Destroy,
                                          &SettingsToValue,
                                          &SettingsFromValue};
  return kDescriptor;
}

}  // namespace orn::serial
