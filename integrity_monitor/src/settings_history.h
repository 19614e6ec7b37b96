// The on-demand task's memory of the settings its last completed run used,
// and the baseline upkeep that depends on it.
//
// The settings of the last completed run live in the host's persistent
// storage as one node named "PreviousSettings" (the record serialised by
// the host's structure serializer). They are read at the start of a run and
// written only after a run whose areas all succeeded, so an interrupted or
// failed run leaves the previous node in place and the next run compares
// against the same settings.
//
// Scan scopes removed by Collect lose their "Baseline" and "CurrentSnaphot"
// rows too: the foreign-key cascade is on for the connection.
//
// Used on the task's worker thread only, under the task lock; the context,
// database, storage and serializer must outlive this object. Every failure
// is traced once here in the check-and-trace form and returned.
#pragma once

#include <cstdint>

#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/persistent_storage.h"
#include "orn/result.h"
#include "pax/settings/fim_settings.h"
#include "pax/task_info.h"

namespace pax::fim {

// The storage node that holds the previous settings.
inline constexpr const char PrevSettingsNodeName[] = "PreviousSettings";

class SettingsHistory {
 public:
  SettingsHistory(OnDemandContext& context, IntegrityDatabase& db, orn::IPersistentStorage* storage,
                  orn::IStorageSerializer2* serializer);

  // The settings of the last completed run, or a copy of the current
  // settings when no run has completed yet ("No previous settings were
  // found"). A node holding another record type throws an orn exception
  // ("Containted serializable doesn`t match the requested one") for the
  // run's top-level handler.
  [[nodiscard]] result_t LoadPreviousSettings(settings::ODFIMSettings& previous);

  // Whether the baseline of `area` (which has one) must be rebuilt because
  // the settings it was taken under differ from the current ones.
  bool NeedForceRebuildBaseline(const settings::ScanArea& area,
                                const settings::ODFIMSettings& previous) const;

  // Replaces every "PreviousSettings" node by one holding the current
  // settings. A serializer that fails leaves the nodes as they were; a
  // storage write that fails after the old nodes went leaves none (never an
  // empty one, which would fail every later run).
  [[nodiscard]] result_t SaveSettingsToStorage();

  // Deletes the scan scopes of `taskId` whose areas were in `previous` but
  // are no longer configured. 0 at once when the settings are unchanged.
  [[nodiscard]] result_t Collect(core::TaskId taskId, const settings::ODFIMSettings& previous);

  // Deletes one scan scope (with its rows).
  [[nodiscard]] result_t DeleteScanScope(std::uint64_t scanScopeId);

  // Replaces the scope's baseline by its current snapshot, which is then
  // emptied, in one transaction. Must not run inside another transaction.
  [[nodiscard]] result_t RebuildBaseline(std::uint64_t scanScopeId);

 private:
  orn::ITracer* Tracer() const { return m_context.tracer; }
  const settings::ODFIMSettings& Current() const { return *m_context.settings; }

  OnDemandContext& m_context;
  IntegrityDatabase& m_db;
  orn::IPersistentStorage* m_storage;
  orn::IStorageSerializer2* m_serializer2;
};

}  // namespace pax::fim
