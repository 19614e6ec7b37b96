#include "snapshot_comparer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <boost/format.hpp>

#include "framework/check.h"
#include "framework/exceptions.h"
#include "framework/trace.h"
#include "integrity_event.h"
#include "orn/text.h"
#include "pax/enumerations.h"
#include "pax_utils/date_to_string_and_viceversa.h"
#include "sqlite_handles.h"

namespace pax::fim {

namespace {

// Objects of the scope whose Baseline and CurrentSnaphot rows differ or
// exist on one side only: baseline columns 0-15, current columns 16-31.
constexpr const char kCompareStatement[] =
    "select b.ino, b.dev, b.ctime_sec, b.ctime_nsec, b.atime_sec, b.atime_nsec, b.mtime_sec, "
    "b.mtime_nsec, b.paths, b.attr, b.nlinks, b.size, b.uid, b.gid, b.sha256, b.acl, c.ino, "
    "c.dev, c.ctime_sec, c.ctime_nsec, c.atime_sec, c.atime_nsec, c.mtime_sec, c.mtime_nsec, "
    "c.paths, c.attr, c.nlinks, c.size, c.uid, c.gid, c.sha256, c.acl from Baseline b left "
    "join CurrentSnaphot c on b.ino = c.ino and b.dev = c.dev and b.scanscopeid = "
    "c.scanscopeid where b.scanscopeid = '%1%' and (c.ino is NULL or not (b.ctime_sec = "
    "c.ctime_sec and b.ctime_nsec = c.ctime_nsec and b.atime_sec = c.atime_sec and "
    "b.atime_nsec = c.atime_nsec and b.mtime_sec = c.mtime_sec and b.mtime_nsec = "
    "c.mtime_nsec and b.paths = c.paths and b.attr = c.attr and b.nlinks = c.nlinks and "
    "b.size = c.size and b.uid = c.uid and b.gid = c.gid and b.sha256 = c.sha256 and b.acl = "
    "c.acl)) union select b.ino, b.dev, b.ctime_sec, b.ctime_nsec, b.atime_sec, b.atime_nsec, "
    "b.mtime_sec, b.mtime_nsec, b.paths, b.attr, b.nlinks, b.size, b.uid, b.gid, b.sha256, "
    "b.acl, c.ino, c.dev, c.ctime_sec, c.ctime_nsec, c.atime_sec, c.atime_nsec, c.mtime_sec, "
    "c.mtime_nsec, c.paths, c.attr, c.nlinks, c.size, c.uid, c.gid, c.sha256, c.acl from "
    "CurrentSnaphot c left join Baseline b on c.ino = b.ino and c.dev = b.dev and "
    "c.scanscopeid = b.scanscopeid where c.scanscopeid = '%1%' and (b.ino is NULL or not "
    "(c.ctime_sec = b.ctime_sec and c.ctime_nsec = b.ctime_nsec and c.atime_sec = b.atime_sec "
    "and c.atime_nsec = b.atime_nsec and c.mtime_sec = b.mtime_sec and c.mtime_nsec = "
    "b.mtime_nsec and c.paths = b.paths and c.attr = b.attr and c.nlinks = b.nlinks and "
    "c.size = b.size and c.uid = b.uid and c.gid = b.gid and c.sha256 = b.sha256 and c.acl = "
    "b.acl))";

// The module's added columns of an object present on both sides: birth
// times and default ACLs (the comparison statement predates them and does
// not select them).
constexpr const char kAddedColumns[] =
    "SELECT b.btime_sec, b.btime_nsec, c.btime_sec, c.btime_nsec, b.acl_default, "
    "c.acl_default FROM Baseline b JOIN "
    "CurrentSnaphot c ON c.scanscopeid = b.scanscopeid AND c.ino = b.ino AND c.dev = b.dev "
    "WHERE b.scanscopeid = ?1 AND b.ino = ?2 AND b.dev = ?3";

// Columns of one side, from `first` on, in the statement's order.
void ReadSnapshot(sqlite3_stmt* stmt, int first, FileSnapshot& snap) {
  const auto i64 = [&](int column) { return ::sqlite3_column_int64(stmt, first + column); };
  const auto blob = [&](int column, orn::types::blob_t& out) {
    const auto* bytes =
        static_cast<const std::uint8_t*>(::sqlite3_column_blob(stmt, first + column));
    const int size = ::sqlite3_column_bytes(stmt, first + column);
    out.assign(bytes, bytes ? bytes + size : bytes);
  };
  snap.ino = static_cast<std::uint64_t>(i64(0));
  snap.dev = static_cast<std::uint64_t>(i64(1));
  snap.ctime_sec = i64(2);
  snap.ctime_nsec = i64(3);
  snap.atime_sec = i64(4);
  snap.atime_nsec = i64(5);
  snap.mtime_sec = i64(6);
  snap.mtime_nsec = i64(7);
  blob(8, snap.paths);
  snap.attr = static_cast<std::uint32_t>(i64(9));
  snap.nlinks = static_cast<std::uint64_t>(i64(10));
  snap.size = i64(11);
  snap.uid = static_cast<std::uint32_t>(i64(12));
  snap.gid = static_cast<std::uint32_t>(i64(13));
  orn::types::blob_t digest;
  blob(14, digest);
  snap.sha256 = {};
  // A zero-length blob stands for "no digest taken" (all zero).
  if (digest.size() == snap.sha256.size())
    std::copy(digest.begin(), digest.end(), snap.sha256.begin());
  blob(15, snap.acl);
  // Not selected here: read apart for an object present on both sides.
  snap.acl_default.reset();
}

// A blob column, or std::nullopt for NULL.
std::optional<orn::types::blob_t> OptionalBlob(sqlite3_stmt* stmt, int column) {
  if (::sqlite3_column_type(stmt, column) == SQLITE_NULL) return std::nullopt;
  const auto* bytes = static_cast<const std::uint8_t*>(::sqlite3_column_blob(stmt, column));
  const int size = ::sqlite3_column_bytes(stmt, column);
  return orn::types::blob_t(bytes, bytes ? bytes + size : bytes);
}

bool Later(std::int64_t sec, std::int64_t nsec, std::int64_t thanSec, std::int64_t thanNsec) {
  return sec > thanSec || (sec == thanSec && nsec > thanNsec);
}

// "new (old)".
std::string NewOld(const std::string& before, const std::string& after) {
  return (boost::format("%2% (%1%)") % before % after).str();
}

std::string Number(std::uint64_t value) {
  char buffer[32];
  std::snprintf(buffer, sizeof(buffer), "%lu", static_cast<unsigned long>(value));
  return buffer;
}

std::string DateText(std::int64_t sec, std::int64_t nsec) {
  std::string out;
  timespec time{};
  time.tv_sec = static_cast<time_t>(sec);
  time.tv_nsec = static_cast<long>(nsec);
  utils::date_to_string(out, time, utils::kDateFormat);
  return out;
}

// Keeps the first failure of several independent publishes.
void KeepFirstFailure(result_t& first, result_t r) {
  if (ORN_FAILED(r) && ORN_SUCCEEDED(first)) first = r;
}

}  // namespace

SnapshotComparer::SnapshotComparer(OnDemandContext& context, IntegrityDatabase& db,
                                   ChangePublisher& publisher)
    : m_context(context), m_db(db), m_publisher(publisher) {}

result_t SnapshotComparer::CompareSnapshots(std::uint64_t scanScopeId) {
  orn::ITracer* const tracer = m_context.tracer;
  ORN_TRACE(tracer, orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const std::string query = (boost::format(kCompareStatement) % scanScopeId).str();
  sqlite3* const db = m_db.Handle();
  Statement stmt;
  if (::sqlite3_prepare_v2(db, query.c_str(), -1, stmt.Ref(), nullptr) != SQLITE_OK) {
    ORN_TRACE(tracer, orn::kTraceLevelError)
        << kOdfimPrefix << "Cannot build sql statement for " << query << ": "
        << ::sqlite3_errmsg(db) << " (" << ::sqlite3_errcode(db) << ")";
    return orn::errors::kUnspecified;
  }
  bool anyRow = false;
  bool reported = false;
  int rc = SQLITE_ROW;
  while ((rc = ::sqlite3_step(stmt.Get())) == SQLITE_ROW) {
    anyRow = true;
    FileSnapshot before;
    FileSnapshot after;
    ReadSnapshot(stmt.Get(), 0, before);
    ReadSnapshot(stmt.Get(), 16, after);
    if (!before.IsAbsent() && !after.IsAbsent()) {
      if (const result_t r = ReadAddedColumns(scanScopeId, before, after); ORN_FAILED(r)) return r;
    }
    ORN_TRACE(tracer, orn::kTraceLevelDetail) << kOdfimPrefix << "before: " << before;
    ORN_TRACE(tracer, orn::kTraceLevelDetail) << kOdfimPrefix << "after: " << after;
    result_t res = orn::errors::kOk;
    if (ORN_FAILED(ORN_CHECK(tracer, res = Compare(before, after),
                             "Cannot compare current snapshot with baseline")))
      return res;
    reported = reported || res == orn::errors::kFalse;
  }
  if (rc != SQLITE_DONE) {
    ORN_TRACE(tracer, orn::kTraceLevelError)
        << kOdfimPrefix << "Cannot read sql statement result for " << query << ": "
        << ::sqlite3_errmsg(db) << " (" << rc << ")";
    return orn::errors::kUnspecified;
  }
  if (!anyRow) {
    ORN_TRACE(tracer, orn::kTraceLevelDetail) << kOdfimPrefix << "No changes found";
  }
  return reported ? orn::errors::kFalse : orn::errors::kOk;
}

result_t SnapshotComparer::ReadAddedColumns(std::uint64_t scanScopeId, FileSnapshot& before,
                                            FileSnapshot& after) {
  sqlite3_stmt* stmt = nullptr;
  if (const int rc = m_db.Prepared(kAddedColumns, stmt); rc != SQLITE_OK) {
    ORN_TRACE(m_context.tracer, orn::kTraceLevelError)
        << kOdfimPrefix << "Cannot build sql statement for " << kAddedColumns << ": "
        << ::sqlite3_errmsg(m_db.Handle()) << " (" << rc << ")";
    return orn::errors::kUnspecified;
  }
  StatementUse use(stmt);
  ::sqlite3_bind_int64(stmt, 1, static_cast<sqlite3_int64>(scanScopeId));
  ::sqlite3_bind_int64(stmt, 2, static_cast<sqlite3_int64>(before.ino));
  ::sqlite3_bind_int64(stmt, 3, static_cast<sqlite3_int64>(before.dev));
  if (::sqlite3_step(stmt) == SQLITE_ROW) {
    before.btime_sec = ::sqlite3_column_int64(stmt, 0);
    before.btime_nsec = ::sqlite3_column_int64(stmt, 1);
    after.btime_sec = ::sqlite3_column_int64(stmt, 2);
    after.btime_nsec = ::sqlite3_column_int64(stmt, 3);
    before.acl_default = OptionalBlob(stmt, 4);
    after.acl_default = OptionalBlob(stmt, 5);
  }
  return orn::errors::kOk;
}

bool SnapshotComparer::IsAnotherObject(const FileSnapshot& before, const FileSnapshot& after) {
  // Another file type is always another object.
  if ((before.attr & S_IFMT) != (after.attr & S_IFMT)) return true;
  if (!after.HasBirthTime()) return false;
  // A birth time never changes...
  if (before.HasBirthTime())
    return before.btime_sec != after.btime_sec || before.btime_nsec != after.btime_nsec;
  // ...and never follows the object's own change time: an object born after
  // the change time the baseline recorded was not there to be recorded.
  return Later(after.btime_sec, after.btime_nsec, before.ctime_sec, before.ctime_nsec);
}

result_t SnapshotComparer::Compare(const FileSnapshot& before, const FileSnapshot& after) {
  result_t failure = orn::errors::kOk;
  if (before.IsAbsent()) {
    const std::uint32_t type = FileTypeFromMode(after.attr);
    for (const NativePath& path : SplitPaths(after.paths))
      KeepFirstFailure(failure, m_publisher.PublishObjectCreatedEvent(after, path, type));
    return ORN_FAILED(failure) ? failure : orn::errors::kFalse;
  }
  if (after.IsAbsent()) {
    const std::uint32_t type = FileTypeFromMode(before.attr);
    for (const NativePath& path : SplitPaths(before.paths))
      KeepFirstFailure(failure, m_publisher.PublishObjectDeletedEvent(before, path, type));
    return ORN_FAILED(failure) ? failure : orn::errors::kFalse;
  }

  if (IsAnotherObject(before, after)) {
    // The inode number was freed and handed to a new object: the old one
    // was deleted and the new one created, whatever their paths; neither
    // content nor attributes are compared across the two.
    ORN_TRACE(m_context.tracer, orn::kTraceLevelDetail)
        << kOdfimPrefix << "Inode " << after.ino << " was reused by another object";
    for (const NativePath& path : SplitPaths(before.paths))
      KeepFirstFailure(failure, m_publisher.PublishObjectDeletedEvent(
                                    before, path, FileTypeFromMode(before.attr)));
    for (const NativePath& path : SplitPaths(after.paths))
      KeepFirstFailure(failure, m_publisher.PublishObjectCreatedEvent(
                                    after, path, FileTypeFromMode(after.attr)));
    return ORN_FAILED(failure) ? failure : orn::errors::kFalse;
  }

  const bool isContentChanged = before.sha256 != after.sha256 || before.size != after.size;
  const std::uint32_t typeBefore = FileTypeFromMode(before.attr);
  const std::uint32_t typeAfter = FileTypeFromMode(after.attr);
  bool published = false;
  if (typeBefore == typeAfter && typeBefore == object_type::kFile && isContentChanged) {
    for (const NativePath& path : SplitPaths(after.paths)) {
      KeepFirstFailure(failure, m_publisher.PublishObjectContentChangedEvent(before, path));
      published = true;
    }
  }
  KeepFirstFailure(failure, ComparePaths(before, after, published));

  // One event for the object's access control, whichever of its ACLs
  // changed. A default ACL not known on one side (a baseline row written
  // before it was recorded) is not compared: its first recording is no
  // change.
  const bool defaultAclChanged =
      before.acl_default && after.acl_default && *before.acl_default != *after.acl_default;
  const bool aclChanged = before.acl != after.acl || defaultAclChanged;
  if (aclChanged) {
    for (const NativePath& path : SplitPaths(after.paths))
      KeepFirstFailure(failure,
                       m_publisher.PublishObjectAccessControlChangedEvent(after, path, typeAfter));
  }

  result_t res = orn::errors::kOk;
  if (ORN_FAILED(ORN_CHECK(m_context.tracer,
                           res = CompareFileAttributes(before, after, isContentChanged),
                           "Cannot compare file attrs")))
    return res;
  if (ORN_FAILED(failure)) return failure;
  return (aclChanged || res == orn::errors::kFalse || published) ? orn::errors::kFalse
                                                                 : orn::errors::kOk;
}

result_t SnapshotComparer::ComparePaths(const FileSnapshot& before, const FileSnapshot& after,
                                        bool& published) {
  if (before.paths == after.paths) return orn::errors::kOk;
  const std::set<NativePath> oldPaths = SplitPaths(before.paths);
  const std::set<NativePath> newPaths = SplitPaths(after.paths);
  // Only the order (or a repetition) of the hard links changed.
  if (oldPaths == newPaths) return orn::errors::kOk;
  published = true;
  if (oldPaths.size() == 1 && newPaths.size() == 1) {
    return m_publisher.PublishObjectRenamedEvent(before, *oldPaths.begin(), *newPaths.begin(),
                                                 FileTypeFromMode(before.attr));
  }
  result_t failure = orn::errors::kOk;
  std::vector<NativePath> gone;
  std::set_difference(oldPaths.begin(), oldPaths.end(), newPaths.begin(), newPaths.end(),
                      std::back_inserter(gone));
  for (const NativePath& path : gone)
    KeepFirstFailure(failure, m_publisher.PublishObjectDeletedEvent(before, path,
                                                                    FileTypeFromMode(before.attr)));
  std::vector<NativePath> added;
  std::set_difference(newPaths.begin(), newPaths.end(), oldPaths.begin(), oldPaths.end(),
                      std::back_inserter(added));
  for (const NativePath& path : added)
    KeepFirstFailure(
        failure, m_publisher.PublishObjectCreatedEvent(after, path, FileTypeFromMode(after.attr)));
  return failure;
}

result_t SnapshotComparer::CompareFileAttributes(const FileSnapshot& before,
                                                 const FileSnapshot& after, bool isContentChanged) {
  // Content changes have their own event; the attributes (size included)
  // are reported for what they are either way.
  (void)isContentChanged;
  try {
    ProductEvent event = MakeIntegrityEvent(event_type::kSystemIntegrityIssue, severity::kCritical);
    bool differs = false;
    // Something a rename or move does not change by itself: not the
    // status-change time, which a rename sets.
    bool beyondTimes = false;
    const auto add = [&](std::uint32_t fieldId, const std::string& oldText,
                         const std::string& newText) {
      event.Add(fieldId, FieldValue::Text16(orn::text::NarrowToWide(NewOld(oldText, newText))));
      differs = true;
      beyondTimes = beyondTimes ||
                    (fieldId != field::kLastStatusChangeTime && fieldId != field::kLastAccessTime);
    };
    if (before.nlinks != after.nlinks)
      add(field::kLinkCount, Number(before.nlinks), Number(after.nlinks));
    if (before.uid != after.uid) add(field::kOwnerUserId, Number(before.uid), Number(after.uid));
    if (before.gid != after.gid) add(field::kOwnerGroupId, Number(before.gid), Number(after.gid));
    if (before.attr != after.attr)
      add(field::kObjectAttributes, ModeText(before.attr), ModeText(after.attr));
    if (before.size != after.size)
      add(field::kObjectSize, Number(static_cast<std::uint64_t>(before.size)),
          Number(static_cast<std::uint64_t>(after.size)));
    if (before.ctime_sec != after.ctime_sec || before.ctime_nsec != after.ctime_nsec)
      add(field::kLastStatusChangeTime, DateText(before.ctime_sec, before.ctime_nsec),
          DateText(after.ctime_sec, after.ctime_nsec));
    // A modification time set back or forth (touch -d) with the content
    // unchanged is reported as what it is.
    if (before.mtime_sec != after.mtime_sec || before.mtime_nsec != after.mtime_nsec)
      add(field::kLastModificationTime, DateText(before.mtime_sec, before.mtime_nsec),
          DateText(after.mtime_sec, after.mtime_nsec));
    const bool reportAccessTime = m_context.settings && m_context.settings->reportAccessTime;
    if (reportAccessTime &&
        (before.atime_sec != after.atime_sec || before.atime_nsec != after.atime_nsec))
      add(field::kLastAccessTime, DateText(before.atime_sec, before.atime_nsec),
          DateText(after.atime_sec, after.atime_nsec));
    if (!differs) return orn::errors::kOk;

    event.Add(field::kFileModificationType,
              FieldValue::U32(modification::kObjectAttributesChanged));
    const std::set<NativePath> oldPaths = SplitPaths(before.paths);
    const std::set<NativePath> newPaths = SplitPaths(after.paths);
    std::vector<NativePath> common;
    std::set_intersection(oldPaths.begin(), oldPaths.end(), newPaths.begin(), newPaths.end(),
                          std::back_inserter(common));
    if (common.empty()) {
      ORN_TRACE(m_context.tracer, orn::kTraceLevelDetail)
          << kOdfimPrefix << "All hardlinks to file were deleted/renamed";
      // The rename, move or path events say where the object went, not that
      // its mode, owner or content times changed too: those are reported
      // under its new paths, lest a renamed file turn setuid unseen.
      if (!beyondTimes) return orn::errors::kFalse;
      common.assign(newPaths.begin(), newPaths.end());
    }
    result_t failure = orn::errors::kOk;
    const std::uint32_t type = FileTypeFromMode(after.attr);
    for (const NativePath& path : common)
      KeepFirstFailure(failure, m_publisher.PublishAttributesChangedEvent(event, path, type));
    return ORN_FAILED(failure) ? failure : orn::errors::kFalse;
  } catch (...) {
    return orn::ExceptionToResult(m_context.tracer, "Unexpected error in CompareFileAttributes: ");
  }
}

}  // namespace pax::fim
