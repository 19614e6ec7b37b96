// One scan area's part of an on-demand run: decide whether the area's files
// are recorded as a new baseline or as the current snapshot, walk the area
// recording one snapshot per object, then compare with the baseline (and
// fold the snapshot into it when automatic baseline update is on) or finish
// the new baseline.
//
// Enumeration strategy (how the walk covers an area):
//   - The area root is read without following a final symbolic link. A root
//     that is not a directory is recorded as a single object; a missing root
//     and a root on a pseudo file system (proc, sysfs, usbdevfs) are skipped
//     with a warning, and the area is finished with an empty snapshot. A
//     directory root is recorded like every object under it (so changes of
//     the area's own directory are reported), then walked. A baseline taken
//     before roots were recorded gets the root's row silently at its first
//     comparison (AdoptAreaRoot).
//   - Every entry of every directory entered is considered ("." and ".."
//     aside). An entry on a pseudo file system is skipped silently; every
//     other entry, directories included, goes to the snapshot builder,
//     which consults the task's path matcher and records only objects in
//     scope: excluded objects produce no snapshot. The file-system test
//     answers as statfs (which follows links) would for every entry; statfs
//     is asked only for links, mount points and where mount ids are unknown
//     (SnapshotBuilder::EntryFacts): any other entry lies on the file system
//     of its directory, which passed the test.
//   - Sub-directories are entered when they were recorded, that is when the
//     matcher puts them in scope: an excluded directory is not entered. The
//     one exception is a configuration whose exclusion entries carry
//     exceptions (re-included globs): an exception may re-include objects
//     beneath an excluded directory, so with such entries present every
//     directory is entered and the matcher decides object by object.
//   - Symbolic links are never followed: a link is recorded as the link
//     itself, and sub-directories are opened without following links, so a
//     link cannot lead the walk out of the area or into a cycle.
//   - Mount points are crossed: a file system mounted inside an area is part
//     of what the administrator chose to monitor (a separate /boot or /usr
//     under "/"), while the pseudo file systems, whose contents are not
//     files, are left out by the test above. Other virtual file systems
//     (tmpfs, devtmpfs) are left to exclusions. A bind mount reaches one
//     object by two paths: its row keeps both, as for hard links.
//   - Directories are opened with O_NOATIME where allowed: the walk does not
//     change the access times it may report.
//   - The walk is depth-first with an explicit stack of directory streams
//     (directory_walker.h): depth costs no call stack, and the number of
//     open streams is bounded, so no depth exhausts the descriptors.
//   - A sub-directory that cannot be opened (removed meanwhile: silently;
//     anything else: a warning) is recorded but not walked; the walk goes
//     on with its siblings.
//
// Atomicity: the scope registration, the deletions that prepare the area
// and every row of the walk are written in one transaction, committed only
// when the walk has ended without stop or failure. A stop, a failure or a
// crash mid-walk therefore leaves the database as it was before the area:
// never a baseline that claims to be complete. The comparison and the
// baseline rebuild run after the commit.
//
// Results: 1 when the area reported something (a baseline was built, or the
// comparison reported changes), 0 when it reported nothing, a failure
// otherwise (errors::kCancelled when the task's stop flag ended the walk).
// When an area fails, its failure action reports it ("IntegrityMonitorError")
// and, for a baseline being built, deletes the scope so that the next run
// starts the baseline anew (kept when the failure is errors::kNotFound).
//
// Used on the task's worker thread only, under the task lock; everything
// passed to the constructor must outlive the builder.
#pragma once

#include <cstdint>

#include "change_publisher.h"
#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/result.h"
#include "pause_gate.h"
#include "pax/settings/fim_settings.h"
#include "settings_history.h"
#include "snapshot_builder.h"

namespace pax::fim {

// Which sub-directories the walk enters; see the strategy above.
class EnumerationStrategy {
 public:
  explicit EnumerationStrategy(const settings::ODFIMSettings& settings);

  // `recorded` is the snapshot builder's answer for the directory: 0 in
  // scope and recorded, 1 outside the scope.
  bool ShouldEnter(result_t recorded) const { return recorded == 0 || !m_pruneExcluded; }
  bool PrunesExcluded() const { return m_pruneExcluded; }

 private:
  bool m_pruneExcluded;
};

class AreaSnapshotBuilder {
 public:
  AreaSnapshotBuilder(OnDemandContext& context, IntegrityDatabase& db, SettingsHistory& history,
                      ChangePublisher& publisher, PauseGate& gate);

  // `prevSettings`: the settings of the last completed run.
  [[nodiscard]] result_t BuildAreaSnapshot(const settings::ScanArea& area,
                                           const settings::ODFIMSettings& prevSettings);

 private:
  struct AreaRun;

  result_t BuildArea(AreaRun& run, const settings::ScanArea& area,
                     const settings::ODFIMSettings& prevSettings);
  result_t PrepareScope(AreaRun& run, const settings::ScanArea& area,
                        const settings::ODFIMSettings& prevSettings);
  result_t Walk(const AreaRun& run);
  result_t WalkDirectory(const AreaRun& run, SnapshotBuilder& builder);
  result_t AdoptAreaRoot(const AreaRun& run, const NativePath& root,
                         const SnapshotBuilder::EntryFacts& facts);
  result_t Finish(AreaRun& run);
  void OnAreaFailure(const AreaRun& run, result_t failure);
  bool StopRequested() const;
  orn::ITracer* Tracer() const { return m_context.tracer; }

  OnDemandContext& m_context;
  IntegrityDatabase& m_db;
  SettingsHistory& m_history;
  ChangePublisher& m_publisher;
  PauseGate& m_gate;
};

}  // namespace pax::fim
