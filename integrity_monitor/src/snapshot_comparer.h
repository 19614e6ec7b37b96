// Turns the differences between a scan scope's "Baseline" and
// "CurrentSnaphot" rows into change events: created, deleted, content
// changed, moved/renamed (or per-path created/deleted), ACL changed and
// attributes changed.
//
// Reads the database only; the baseline is replaced elsewhere. Used on the
// task's worker thread only; the context, database and publisher must
// outlive the comparer.
#pragma once

#include <cstdint>

#include "change_publisher.h"
#include "file_snapshot.h"
#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/result.h"

namespace pax::fim {

class SnapshotComparer {
 public:
  SnapshotComparer(OnDemandContext& context, IntegrityDatabase& db, ChangePublisher& publisher);

  // Publishes every change of the scope. 1 when some change was reported
  // (some Compare returned 1), 0 when nothing was: no row came back ("No
  // changes found"), or only rows that publish nothing, such as an
  // access-time change while access times are not reported. The run
  // reports "SystemIntegrityOk" only when no area returned 1. A failure ends
  // the comparison: errors::kUnspecified for a statement error, or the
  // first failed publish.
  [[nodiscard]] result_t CompareSnapshots(std::uint64_t scanScopeId);

  // One object's change; `before` or `after` IsAbsent() for a created or
  // deleted object. A pair that is not one object (IsAnotherObject) is a
  // deletion of `before` and a creation of `after`. One access-control
  // event per path of `after` when the access ACL or the default ACL
  // differs (one, not two, when both do); a default ACL not known on either
  // side (std::nullopt: a row written before it was recorded) counts as
  // unchanged. 1 when something was published, 0 when nothing was.
  [[nodiscard]] result_t Compare(const FileSnapshot& before, const FileSnapshot& after);

  // True when the two rows of one (dev, ino) describe two objects: the
  // number was freed and reused. Another file type always; otherwise, where
  // `after` has a birth time, a birth time different from the baseline's,
  // or (a baseline row without one) later than the baseline's change time.
  // Without a birth time a reused number of the same type is not told from
  // the same object.
  static bool IsAnotherObject(const FileSnapshot& before, const FileSnapshot& after);

  // One attributes-changed event per path present on both sides, with a
  // field per attribute that differs: link count, owner, group, mode, size,
  // change time, modification time, and the access time when the settings
  // ask for it. 1 when some attribute differed (even with no common path
  // left), 0 otherwise.
  [[nodiscard]] result_t CompareFileAttributes(const FileSnapshot& before,
                                               const FileSnapshot& after, bool isContentChanged);

 private:
  // Fills the birth times and default ACLs of an object present on both
  // sides.
  result_t ReadAddedColumns(std::uint64_t scanScopeId, FileSnapshot& before, FileSnapshot& after);
  result_t ComparePaths(const FileSnapshot& before, const FileSnapshot& after, bool& published);

  OnDemandContext& m_context;
  IntegrityDatabase& m_db;
  ChangePublisher& m_publisher;
};

}  // namespace pax::fim
