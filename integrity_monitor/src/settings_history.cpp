#include "settings_history.h"

#include <boost/format.hpp>
#include <string>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/object.h"
#include "framework/trace.h"
#include "orn/ref_ptr.h"
#include "orn/serialization.h"
#include "settings/fim_settings_equality.h"
#include "settings/fim_settings_serial.h"

namespace pax::fim {

using settings::ODFIMSettings;
using settings::ScanArea;

namespace {

// A node that keeps its value in memory. The settings are serialized into
// one before the storage is touched, so that a serializer that fails leaves
// the stored settings as they were.
class StagingNode : public orn::IStorageNode, private orn::NonCopyable {
 public:
  using Interfaces = orn::Ifaces<orn::IStorageNode>;
  result_t GetName(orn::types::string8_t& name) const override {
    name = PrevSettingsNodeName;
    return orn::errors::kOk;
  }
  result_t GetValue(orn::types::blob_t& value) const override {
    value = m_value;
    return orn::errors::kOk;
  }
  result_t SetValue(const orn::types::blob_t& value) override {
    m_value = value;
    return orn::errors::kOk;
  }

 private:
  orn::types::blob_t m_value;
};

}  // namespace

SettingsHistory::SettingsHistory(OnDemandContext& context, IntegrityDatabase& db,
                                 orn::IPersistentStorage* storage,
                                 orn::IStorageSerializer2* serializer)
    : m_context(context), m_db(db), m_storage(storage), m_serializer2(serializer) {}

result_t SettingsHistory::LoadPreviousSettings(ODFIMSettings& prevSettings) {
  prevSettings = ODFIMSettings{};
  orn::RefPtr<orn::IStorageNode> node;
  const result_t found = m_storage->FindNode(PrevSettingsNodeName, node.Ref());
  if (found == orn::errors::kNotFound) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
        << kOdfimPrefix << "No previous settings were found";
    prevSettings = Current();
    return orn::errors::kOk;
  }
  if (const result_t r = ORN_CHECK(Tracer(), found, "Cannot read previous settings"); ORN_FAILED(r))
    return r;

  orn::Any any;
  if (const result_t r =
          ORN_CHECK(Tracer(), m_serializer2->Deserialize(any, node.Get(), 0, nullptr),
                    "Cannot deserialize ODFIMSettings struct");
      ORN_FAILED(r))
    return r;
  const ODFIMSettings* stored = any.Get<ODFIMSettings>();
  if (!stored)
    throw orn::ResultCodeException(__FILE__, __LINE__, orn::errors::kBadCast,
                                   "Containted serializable doesn`t match the requested one");
  prevSettings = *stored;
  return orn::errors::kOk;
}

bool SettingsHistory::NeedForceRebuildBaseline(const ScanArea& area,
                                               const ODFIMSettings& previous) const {
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const ODFIMSettings& current = Current();
  if (settings::SameSettings(current, previous)) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Settings were not changed";
    return false;
  }
  if (settings::GlobalFlagsDiffer(current, previous)) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Global settings were changed";
    return true;
  }
  if (settings::GlobalExcludesDiffer(current, previous)) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Global excludes were changed";
    return true;
  }
  const ScanArea* before = settings::FindArea(previous, area.path);
  if (!before) {
    // An area new to the settings that already has a baseline keeps it.
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
        << kOdfimPrefix << "new area was added: " << area.path;
    return false;
  }
  if (settings::AreaSettingsDiffer(area, *before)) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
        << kOdfimPrefix << "scan area settings were changed";
    return true;
  }
  if (area.localExclusions != before->localExclusions) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
        << kOdfimPrefix << "Local area exclusions were changed";
    return true;
  }
  return false;
}

result_t SettingsHistory::SaveSettingsToStorage() {
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const orn::Any any = orn::Any::Make(Current());
  if (!ORN_CHECK_BOOL(Tracer(), any.IsValid(), "Cannot make any struct from ODFIMSettings struct"))
    return orn::errors::kUnexpected;
  orn::RefPtr<orn::IStorageNode> staging;
  if (const result_t r =
          orn::CreateObject<StagingNode, orn::IStorageNode>(nullptr, Tracer(), staging);
      ORN_FAILED(r))
    return r;
  if (const result_t r = ORN_CHECK_AS(
          Tracer(), m_serializer2->Serialize(any.ToAnyDescrPtr(), staging.Get(), 0, nullptr),
          "m_serializer2->Serialize(any.ToAnyDescrPtr(), node, 0, nullptr)",
          "Cannot serialize ODFIMSettings struct");
      ORN_FAILED(r))
    return r;
  orn::types::blob_t value;
  (void)staging->GetValue(value);

  while (ORN_SUCCEEDED(m_storage->RemoveNode(PrevSettingsNodeName))) {
  }
  orn::RefPtr<orn::IStorageNode> node;
  if (const result_t r = ORN_CHECK_AS(
          Tracer(), m_storage->AppendNode(PrevSettingsNodeName, node.Ref()),
          "m_storage->AppendNode(PrevSettingsNodeName, node)", "Failed to add new node");
      ORN_FAILED(r))
    return r;
  const result_t r = ORN_CHECK_AS(Tracer(), node->SetValue(value), "node->SetValue(value)",
                                  "Cannot store ODFIMSettings struct");
  // An empty node would fail every later run; without one the next run
  // takes its own settings as the previous ones.
  if (ORN_FAILED(r)) (void)m_storage->RemoveNode(PrevSettingsNodeName);
  return r;
}

result_t SettingsHistory::Collect(core::TaskId taskId, const ODFIMSettings& prevSettings) {
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const ODFIMSettings& current = Current();
  if (settings::SameSettings(current, prevSettings)) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Settings were not changed";
    return orn::errors::kOk;
  }
  std::string query = (boost::format("DELETE FROM %s WHERE 0") % kScanScopesTable).str();
  for (const ScanArea& area : prevSettings.scanAreas) {
    if (settings::FindArea(current, area.path)) continue;
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
        << kOdfimPrefix << "scan scope '" << area.path << "' was deleted";
    query +=
        (boost::format(" OR (taskid = '%1%' and path = '%2%')") % taskId % EscapeSqlText(area.path))
            .str();
  }
  return ORN_CHECK_AS(Tracer(), m_db.QueryExec(query, nullptr, nullptr),
                      "QueryExec(query, nullptr, nullptr)",
                      "Cannot collect deleted scan scopes table");
}

result_t SettingsHistory::DeleteScanScope(std::uint64_t scanScopeId) {
  return m_db.DeleteScanScope(scanScopeId);
}

result_t SettingsHistory::RebuildBaseline(std::uint64_t scanScopeId) {
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const std::string query =
      (boost::format(
           "BEGIN; DELETE FROM '%1%' where scanscopeid = '%3%';INSERT INTO '%1%' SELECT * "
           "FROM '%2%' where scanscopeid = '%3%';DELETE FROM '%2%' WHERE scanscopeid = "
           "'%3%';END") %
       kBaselineTable % kCurrentSnapshotTable % scanScopeId)
          .str();
  const result_t r = ORN_CHECK_AS(Tracer(), m_db.QueryExec(query, nullptr, nullptr),
                                  "QueryExec(query, nullptr, nullptr)", "Cannot rebuild Baseline");
  // sqlite3_exec stops at the failing statement, which would leave the
  // BEGIN open and every later statement of the connection inside it.
  if (ORN_FAILED(r) && m_db.Handle() && !sqlite3_get_autocommit(m_db.Handle()))
    (void)m_db.QueryExec("ROLLBACK", nullptr, nullptr);
  return r;
}

}  // namespace pax::fim
