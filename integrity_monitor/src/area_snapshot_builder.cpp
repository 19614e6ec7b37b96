#include "area_snapshot_builder.h"

#include <sys/stat.h>

#include <cerrno>

#include "area_resolver.h"
#include "directory_walker.h"
#include "failure_actions.h"
#include "framework/check.h"
#include "framework/trace.h"
#include "pax_common/tools_03.h"
#include "snapshot_builder.h"
#include "snapshot_comparer.h"
#include "sqlite_handles.h"

namespace pax::fim {

using settings::ODFIMSettings;
using settings::ScanArea;

namespace {

// Whether the scope's baseline holds the root's (ino, dev): the common case,
// answered by one key lookup.
constexpr const char kRootInBaseline[] =
    "SELECT 1 FROM Baseline WHERE scanscopeid = ?1 AND ino = ?2 AND dev = ?3";
// Whether the scope's baseline holds rows but none for the area root, whose
// paths blob is ?2 (its path and a NUL).
constexpr const char kLegacyBaseline[] =
    "SELECT EXISTS (SELECT 1 FROM Baseline WHERE scanscopeid = ?1) AND NOT EXISTS (SELECT 1 "
    "FROM Baseline WHERE scanscopeid = ?1 AND paths = ?2)";
// Copies the root's current row into the baseline.
constexpr const char kAdoptRoot[] =
    "INSERT OR REPLACE INTO Baseline SELECT * FROM CurrentSnaphot WHERE scanscopeid = ?1 AND "
    "paths = ?2";

bool HasExceptions(const std::vector<settings::ExclusionEntry>& entries) {
  for (const settings::ExclusionEntry& entry : entries)
    if (entry.enabled && !entry.exceptions.empty()) return true;
  return false;
}

// True when `path` lies on a pseudo file system. A failing statfs (a
// dangling symbolic link, an object removed meanwhile) is not a pseudo file
// system: the object is still recorded.
bool OnPseudoFileSystem(const NativePath& path) {
  bool pseudo = false;
  return ORN_SUCCEEDED(tools::IsPseudoFileSystem(path, pseudo)) && pseudo;
}

}  // namespace

EnumerationStrategy::EnumerationStrategy(const ODFIMSettings& settings) {
  bool exceptions = HasExceptions(settings.globalExclusions);
  for (const ScanArea& area : settings.scanAreas)
    exceptions = exceptions || HasExceptions(area.localExclusions);
  m_pruneExcluded = !exceptions;
}

// The state of one area's run. `actions` is declared last so that it is
// destroyed first, while the members its actions read are still alive.
struct AreaSnapshotBuilder::AreaRun {
  NativePath path;
  std::uint64_t scanScopeId = 0;
  FailureActions actions;
};

AreaSnapshotBuilder::AreaSnapshotBuilder(OnDemandContext& context, IntegrityDatabase& db,
                                         SettingsHistory& history, ChangePublisher& publisher,
                                         PauseGate& gate)
    : m_context(context), m_db(db), m_history(history), m_publisher(publisher), m_gate(gate) {}

result_t AreaSnapshotBuilder::BuildAreaSnapshot(const ScanArea& area,
                                                const ODFIMSettings& prevSettings) {
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  AreaRun run;
  run.path = area.path;
  m_context.buildingBaseline = false;
  const result_t result = BuildArea(run, area, prevSettings);
  if (ORN_FAILED(result)) {
    run.actions.Run(result);
  } else {
    run.actions.Discard();
  }
  return result;
}

result_t AreaSnapshotBuilder::BuildArea(AreaRun& run, const ScanArea& area,
                                        const ODFIMSettings& prevSettings) {
  m_gate.Checkpoint();
  // Everything the area writes until its walk has ended; rolled back when
  // this frame is left early, before the failure actions run.
  IntegrityDatabase::Transaction transaction(m_db);
  if (const result_t r = ORN_CHECK(Tracer(), transaction.Status(),
                                   "Cannot begin transaction for '" << run.path << "'");
      ORN_FAILED(r))
    return r;
  if (const result_t r = PrepareScope(run, area, prevSettings); ORN_FAILED(r)) return r;
  if (const result_t r = Walk(run); ORN_FAILED(r)) return r;

  if (StopRequested()) return orn::errors::kCancelled;
  if (const result_t r = ORN_CHECK(Tracer(), transaction.Commit(),
                                   "Cannot commit snapshot of '" << run.path << "'");
      ORN_FAILED(r))
    return r;
  return Finish(run);
}

result_t AreaSnapshotBuilder::PrepareScope(AreaRun& run, const ScanArea& area,
                                           const ODFIMSettings& prevSettings) {
  const result_t res =
      m_db.CheckScanScopeBaseline(run.path, m_context.taskInfo->taskId, run.scanScopeId);
  if (ORN_FAILED(ORN_CHECK_AS(Tracer(), res, "res", "Cannot check scan scope baseline")))
    return res;
  run.actions.Add([this, &run](result_t failure) { OnAreaFailure(run, failure); });

  if (res == orn::errors::kFalse) {
    ORN_TRACE(Tracer(), orn::kTraceLevelDetail) << kOdfimPrefix << "Build new baseline";
    m_context.buildingBaseline = true;
    return orn::errors::kOk;
  }
  if (const result_t r = ORN_CHECK_AS(
          Tracer(), m_db.DeleteSnapshotRows(kCurrentSnapshotTable, run.scanScopeId),
          "QueryExec(query, nullptr, nullptr)", "Cannot delete from " << kCurrentSnapshotTable);
      ORN_FAILED(r))
    return r;
  if (!m_history.NeedForceRebuildBaseline(area, prevSettings)) return orn::errors::kOk;

  ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
      << kOdfimPrefix << "Force rebuild baseline for " << run.path;
  if (const result_t r = ORN_CHECK_AS(
          Tracer(), m_db.DeleteSnapshotRows(kBaselineTable, run.scanScopeId),
          "QueryExec(query, nullptr, nullptr)", "Cannot delete from " << kBaselineTable);
      ORN_FAILED(r))
    return r;
  m_context.buildingBaseline = true;
  return orn::errors::kOk;
}

result_t AreaSnapshotBuilder::Walk(const AreaRun& run) {
  const NativePath& native = run.path;
  struct stat st {};
  if (ORN_FAILED(tools::LStat(native, st))) {
    ORN_TRACE(Tracer(), orn::kTraceLevelWarning)
        << kOdfimPrefix << "Path '" << native << "' doesn't exist. Skip it";
    return orn::errors::kOk;
  }
  if (OnPseudoFileSystem(native)) {
    ORN_TRACE(Tracer(), orn::kTraceLevelWarning)
        << kOdfimPrefix << "Cannot build snapshot for magic file '" << native << "'. Skip it";
    return orn::errors::kOk;
  }
  std::uint32_t ft = 0;
  if (const result_t r = ORN_CHECK(Tracer(), orn::filesystem::GetFileType(native, ft),
                                   "Cannot get filetype for " << native);
      ORN_FAILED(r))
    return r;

  SnapshotBuilder builder(m_context, m_db);
  if ((ft & S_IFMT) != S_IFDIR) {
    // A single-object area: its failure is traced, and the area still
    // finishes (compares, or completes its baseline).
    (void)ORN_CHECK_AS(Tracer(), builder.BuildSnapshot(native, run.scanScopeId),
                       "result = BuildSnapshot(native, scanScopeId)", "");
    return orn::errors::kOk;
  }
  return WalkDirectory(run, builder);
}

result_t AreaSnapshotBuilder::WalkDirectory(const AreaRun& run, SnapshotBuilder& builder) {
  const NativePath& native = run.path;
  const EnumerationStrategy strategy(*m_context.settings);

  // The area's directory is recorded like every object under it, so that a
  // change of its own mode, owner or ACL is reported too. Its file system
  // was tested above.
  SnapshotBuilder::EntryFacts rootFacts;
  rootFacts.fileSystemTested = true;
  const result_t rootRecorded = builder.BuildSnapshot(native, run.scanScopeId, rootFacts);
  if (ORN_FAILED(rootRecorded))
    return ORN_CHECK_AS(Tracer(), rootRecorded, "result = BuildSnapshot(native, scanScopeId)", "");
  if (rootRecorded == orn::errors::kOk && !m_context.buildingBaseline) {
    if (const result_t r = AdoptAreaRoot(run, native, rootFacts); ORN_FAILED(r)) return r;
  }

  DirectoryWalker enumerator;
  if (const result_t r =
          ORN_CHECK_AS(Tracer(), enumerator.Open(native, {rootFacts.mountKnown, rootFacts.mount}),
                       "enumerator.Open(native, strategy)", "Cannot open '" << native << "'");
      ORN_FAILED(r))
    return r;
  // Below the root, objects are taken beneath the directories the walk
  // holds, never through a symbolic link.
  const AreaResolver resolver(enumerator);
  const ScopedResolver resolving(m_context, resolver);

  result_t result = orn::errors::kOk;
  DirectoryWalker::Entry currentObject;
  for (;;) {
    m_gate.Checkpoint();
    if (StopRequested()) break;
    const result_t next = enumerator.Next(currentObject);
    if (next == orn::errors::kFalse) break;
    if (ORN_FAILED(next)) {
      result = ORN_CHECK_AS(Tracer(), next, "enumerator.Next(currentObject)",
                            "Cannot read directory '" << enumerator.FailedDirectory() << "'");
      break;
    }
    // The pseudo-file-system test of each entry is made inside
    // BuildSnapshot, from the status it takes (SnapshotBuilder::EntryFacts):
    // an entry on proc, sysfs or usbdevfs is skipped without a trace.
    SnapshotBuilder::EntryFacts facts;
    facts.directoryMountKnown = currentObject.directoryMountKnown;
    facts.directoryMount = currentObject.directoryMount;
    const result_t recorded = builder.BuildSnapshot(currentObject.path, run.scanScopeId, facts);
    if (ORN_FAILED(recorded)) {
      result = ORN_CHECK_AS(Tracer(), recorded,
                            "result = BuildSnapshot(currentObject, scanScopeId)", "");
      break;
    }
    if (facts.pseudo) continue;
    if (!currentObject.isDirectory || !strategy.ShouldEnter(recorded)) continue;
    const result_t entered = enumerator.Enter(currentObject, {facts.mountKnown, facts.mount});
    if (ORN_FAILED(entered) && orn::ErrnoFromResult(entered) != ENOENT) {
      ORN_TRACE(Tracer(), orn::kTraceLevelWarning)
          << kOdfimPrefix << "Cannot open '" << currentObject.path
          << "': " << orn::TraceResult{entered} << ". Skip it";
    }
  }
  enumerator.Close();
  return result;
}

// A baseline taken before area roots were recorded holds every object of
// the area but its root: the root's first current row would read as a
// created object. Such a baseline receives the root's row as it is now,
// silently; a baseline that recorded the root, or holds nothing at all (the
// area did not exist), is compared as it is.
result_t AreaSnapshotBuilder::AdoptAreaRoot(const AreaRun& run, const NativePath& root,
                                            const SnapshotBuilder::EntryFacts& facts) {
  sqlite3_stmt* stmt = nullptr;
  if (!ORN_CHECK_BOOL(Tracer(), m_db.Prepared(kRootInBaseline, stmt) == SQLITE_OK,
                      "Cannot build sql statement for " << kRootInBaseline))
    return orn::errors::kUnspecified;
  {
    StatementUse use(stmt);
    ::sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(run.scanScopeId));
    ::sqlite3_bind_int64(stmt, 2, static_cast<sqlite3_int64>(facts.ino));
    ::sqlite3_bind_int64(stmt, 3, static_cast<sqlite3_int64>(facts.dev));
    if (::sqlite3_step(stmt) == SQLITE_ROW) return orn::errors::kOk;
  }
  orn::types::blob_t rootPaths(root.begin(), root.end());
  rootPaths.push_back(0);
  if (!ORN_CHECK_BOOL(Tracer(), m_db.Prepared(kLegacyBaseline, stmt) == SQLITE_OK,
                      "Cannot build sql statement for " << kLegacyBaseline))
    return orn::errors::kUnspecified;
  bool legacy = false;
  {
    StatementUse use(stmt);
    ::sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(run.scanScopeId));
    ::sqlite3_bind_blob(stmt, 2, rootPaths.data(), static_cast<int>(rootPaths.size()),
                        SQLITE_STATIC);
    legacy = ::sqlite3_step(stmt) == SQLITE_ROW && ::sqlite3_column_int(stmt, 0) != 0;
  }
  if (!legacy) return orn::errors::kOk;
  ORN_TRACE(Tracer(), orn::kTraceLevelDetail)
      << kOdfimPrefix << "The baseline of '" << root << "' gets its area root";
  if (!ORN_CHECK_BOOL(Tracer(), m_db.Prepared(kAdoptRoot, stmt) == SQLITE_OK,
                      "Cannot build sql statement for " << kAdoptRoot))
    return orn::errors::kUnspecified;
  StatementUse use(stmt);
  ::sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(run.scanScopeId));
  ::sqlite3_bind_blob(stmt, 2, rootPaths.data(), static_cast<int>(rootPaths.size()), SQLITE_STATIC);
  const int rc = ::sqlite3_step(stmt);
  if (!ORN_CHECK_BOOL(
          Tracer(), rc == SQLITE_DONE,
          "Cannot add the area root to the baseline: " << ::sqlite3_errmsg(m_db.Handle())))
    return orn::errors::kUnspecified;
  return orn::errors::kOk;
}

result_t AreaSnapshotBuilder::Finish(AreaRun& run) {
  if (m_context.buildingBaseline) {
    // Publishing failures are traced by the publisher; the baseline stays.
    (void)m_publisher.PublishBaselineBuilt(run.path, run.scanScopeId);
    run.actions.Discard();
    return orn::errors::kFalse;
  }
  SnapshotComparer comparer(m_context, m_db, m_publisher);
  const result_t compared = comparer.CompareSnapshots(run.scanScopeId);
  if (ORN_FAILED(compared)) return compared;
  if (!m_context.settings->autoUpdateBaseline) return compared;

  if (const result_t r = ORN_CHECK_AS(Tracer(), m_history.RebuildBaseline(run.scanScopeId),
                                      "RebuildBaseline(scanScopeId)", "");
      ORN_FAILED(r))
    return r;
  (void)m_publisher.PublishBaselineBuilt(run.path, run.scanScopeId);
  run.actions.Discard();
  return compared;
}

void AreaSnapshotBuilder::OnAreaFailure(const AreaRun& run, result_t failure) {
  (void)m_publisher.PublishIntegrityMonitorError(run.path, failure);
  if (!m_context.buildingBaseline || failure == orn::errors::kNotFound) return;
  // The next run starts this baseline anew.
  (void)m_history.DeleteScanScope(run.scanScopeId);
}

bool AreaSnapshotBuilder::StopRequested() const {
  return m_context.stopFlag && m_context.stopFlag->load() != 0;
}

}  // namespace pax::fim
