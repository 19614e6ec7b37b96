#include "snapshot_builder.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include <boost/format.hpp>

#include "area_resolver.h"
#include "framework/check.h"
#include "framework/trace.h"
#include "orn/file.h"
#include "orn/ref_ptr.h"
#include "orn/text.h"
#include "pax/enumerations.h"
#include "pax_common/tools_03.h"

namespace pax::fim {

namespace {

constexpr const char kAclAttribute[] = "system.posix_acl_access";
constexpr const char kDefaultAclAttribute[] = "system.posix_acl_default";

// The statements in their reference form (quoted in failure traces), and
// the forms actually prepared: the same statements with their values as
// numbered parameters (?N where the template has '%N%'; the three blobs
// ?16..?18), so that one preparation serves every row of a walk instead of
// formatting and compiling a text per file. SQLite applies the columns'
// integer affinity to the quoted values of the templates, so both forms
// store and find the same rows.
constexpr const char kSelectPaths[] =
    "SELECT paths FROM '%1%' WHERE scanscopeid = '%2%' and ino = '%3%' and dev = '%4%'";
constexpr const char kSelectPathsBound[] =
    "SELECT paths FROM '%1%' WHERE scanscopeid = ?2 and ino = ?3 and dev = ?4";
// The two birth-time columns (?19, ?20) and the default ACL (?21) are this
// module's addition to the row (integrity_database.h).
constexpr const char kReplaceBound[] =
    "REPLACE INTO '%1%' "
    "(scanscopeid,ino,dev,ctime_sec,ctime_nsec,atime_sec,atime_nsec,mtime_sec,mtime_nsec,paths,"
    "attr,nlinks,size,uid,gid,sha256, acl,btime_sec,btime_nsec,acl_default)VALUES "
    "(?2,?3,?4,?5,?6,?7,?8,?9,?10,?16,?11,?12,?13,?14,?15,?17, ?18,?19,?20,?21);";
// REPLACE where the lookup just found no row for the key: with nothing to
// replace both store the same row, and SQLite's conflict handling for
// REPLACE costs about a quarter of a walk's database time.
constexpr const char kInsertBound[] =
    "INSERT INTO '%1%' "
    "(scanscopeid,ino,dev,ctime_sec,ctime_nsec,atime_sec,atime_nsec,mtime_sec,mtime_nsec,paths,"
    "attr,nlinks,size,uid,gid,sha256, acl,btime_sec,btime_nsec,acl_default)VALUES "
    "(?2,?3,?4,?5,?6,?7,?8,?9,?10,?16,?11,?12,?13,?14,?15,?17, ?18,?19,?20,?21);";
constexpr int kPathsParam = 16;
constexpr int kShaParam = 17;
constexpr int kAclParam = 18;
constexpr int kBirthSecParam = 19;
constexpr int kBirthNsecParam = 20;
constexpr int kDefaultAclParam = 21;

std::string ErrnoText(int err) {
  char buffer[256];
  return ::strerror_r(err, buffer, sizeof(buffer));
}

bool IsZero(const Sha256Digest& digest) {
  for (const std::uint8_t b : digest)
    if (b != 0) return false;
  return true;
}

// Binds `bytes` without copying (the caller keeps them alive until the
// step), or a zero-length blob when there are none.
void BindBlob(sqlite3_stmt* stmt, int index, const void* bytes, std::size_t size) {
  if (size == 0)
    ::sqlite3_bind_zeroblob(stmt, index, 0);
  else
    ::sqlite3_bind_blob(stmt, index, bytes, static_cast<int>(size), SQLITE_STATIC);
}

// The prepared text of `boundTemplate` for the target table, formatted once
// per table.
const std::string& StatementFor(const char* boundTemplate, bool baseline) {
  struct Texts {
    explicit Texts(const char* bound)
        : baseline((boost::format(bound) % kBaselineTable).str()),
          current((boost::format(bound) % kCurrentSnapshotTable).str()) {}
    std::string baseline, current;
  };
  static const Texts kSelect(kSelectPathsBound);
  static const Texts kReplace(kReplaceBound);
  static const Texts kInsert(kInsertBound);
  const Texts& texts = boundTemplate == kSelectPathsBound ? kSelect
                       : boundTemplate == kInsertBound    ? kInsert
                                                          : kReplace;
  return baseline ? texts.baseline : texts.current;
}

void BindInt(sqlite3_stmt* stmt, int index, std::int64_t value) {
  ::sqlite3_bind_int64(stmt, index, value);
}

}  // namespace

SnapshotBuilder::SnapshotBuilder(OnDemandContext& context, IntegrityDatabase& db)
    : m_context(context), m_db(db) {}

result_t SnapshotBuilder::BuildSnapshot(const NativePath& path, std::uint64_t scanScopeId) {
  return Capture(path, scanScopeId, nullptr);
}

result_t SnapshotBuilder::BuildSnapshot(const NativePath& path, std::uint64_t scanScopeId,
                                        EntryFacts& facts) {
  return Capture(path, scanScopeId, &facts);
}

result_t SnapshotBuilder::Capture(const NativePath& path, std::uint64_t scanScopeId,
                                  EntryFacts* facts) {
  orn::ITracer* const tracer = m_context.tracer;
  // statx rather than lstat: the same status, with the birth time (which
  // tells a reused inode number from the object the baseline saw) and the
  // mount id (which tells where two paths may reach one object). Beneath the
  // walk's directory, as every access to the object (area_resolver.h).
  const AreaResolver& resolver = ResolverOf(m_context);
  tools::ObjectStatus status;
  const bool statOk = resolver.LStatX(path, status) != -1;
  const int statErr = errno;
  if (!ORN_CHECK_BOOL_AS(tracer, statOk, "tools::LStatFile(path, &st) != -1",
                         "Cannot stat for '" << path << "': " << ErrnoText(statErr)))
    return orn::errors::kUnspecified;
  const struct stat& st = status.st;
  const bool isDirectory = (st.st_mode & S_IFMT) == S_IFDIR;
  m_mounts.Note(st.st_dev, status.hasMountId, status.mountId);

  if (facts) {
    facts->isDirectory = isDirectory;
    facts->mountKnown = status.hasMountId;
    facts->mount = status.mountId;
    facts->ino = st.st_ino;
    facts->dev = st.st_dev;
    facts->pseudo = false;
    // An object reached through its directory's mount lies on that
    // directory's file system, which passed the test: statfs would answer
    // the same.
    const bool sameFileSystem = facts->directoryMountKnown && status.hasMountId &&
                                status.mountId == facts->directoryMount &&
                                (st.st_mode & S_IFMT) != S_IFLNK;
    if (!facts->fileSystemTested && !sameFileSystem) {
      // A failing statfs (a dangling link, an object removed meanwhile) is
      // not a pseudo file system.
      if (resolver.OnPseudoFileSystem(path)) {
        facts->pseudo = true;
        return orn::errors::kFalse;
      }
    }
  }

  if (m_context.matcher && m_context.matcher->Match(path, isDirectory) == orn::errors::kFalse) {
    ORN_TRACE(tracer, orn::kTraceLevelDetail) << kOdfimPrefix << path << " is not in scan scope";
    return orn::errors::kFalse;
  }

  Sha256Digest hash{};
  const bool hashing = m_context.settings && m_context.settings->computeContentHash;
  if (hashing && (st.st_mode & S_IFMT) == S_IFREG && st.st_size != 0) {
    if (const result_t r =
            ORN_CHECK_AS(tracer, GetFileHash(path, status, hash), "GetFileHash(path, hash)",
                         "Cannot calc sha256 hash for '" << path << "'");
        ORN_FAILED(r))
      return r;
    // The status may have been taken again from a replacing file.
    if (st.st_size == 0) hash = {};
  }

  orn::types::blob_t acl;
  if (const result_t r =
          ORN_CHECK(tracer, GetAcl(path, acl), "Cannot get acl for '" << path << "'");
      ORN_FAILED(r))
    return r;

  // Only a directory has a default ACL; for any other object "none" is
  // known without asking.
  orn::types::blob_t aclDefault;
  if (isDirectory) {
    if (const result_t r = ORN_CHECK(tracer, GetDefaultAcl(path, aclDefault),
                                     "Cannot get default acl for '" << path << "'");
        ORN_FAILED(r))
      return r;
  }

  FileSnapshot snapshot(path, st, hash, acl);
  snapshot.acl_default = std::move(aclDefault);
  if (status.hasBirthTime) {
    snapshot.btime_sec = status.birthTime.tv_sec;
    snapshot.btime_nsec = status.birthTime.tv_nsec;
  }
  return ORN_CHECK_AS(tracer, SaveFileSnapshot(scanScopeId, snapshot),
                      "SaveFileSnapshot(scanScopeId, FileSnapshot(path, st, hash, acl))", "");
}

result_t SnapshotBuilder::GetFileHash(const NativePath& path, tools::ObjectStatus& status,
                                      Sha256Digest& hash) {
  orn::ITracer* const tracer = m_context.tracer;
  orn::RefPtr<orn::IIO> io;
  // Read access, shared, an existing file; beneath the walk's directory.
  if (const result_t r = ORN_CHECK_AS(
          tracer, ResolverOf(m_context).OpenFile(m_context, path, io.Ref()),
          "m_fileFactory->CreateFile(wPath.c_str(), accessMask, shareMode, disposition, "
          "flagsAndAttributes, io.Ref())",
          "Cannot open file '" << path << "'");
      ORN_FAILED(r))
    return r;

  // The object may have been replaced between the status and the open (an
  // editor's save, a package upgrade): its content must not be recorded
  // under the old object's identity. The open stream keeps the new object
  // alive, so its (dev, ino) cannot be reused meanwhile: a status taken now
  // that shows the same pair is the opened object's.
  orn::FileIdentity identity;
  if (const result_t r =
          ORN_CHECK(tracer, io->GetIdentity(&identity), "Cannot get identity of '" << path << "'");
      ORN_FAILED(r))
    return r;
  const auto opened = [&identity](const struct stat& st) {
    return identity.dev == st.st_dev && identity.ino == st.st_ino;
  };
  if (!opened(status.st)) {
    tools::ObjectStatus again;
    const bool restated = ResolverOf(m_context).LStatX(path, again) == 0;
    if (!ORN_CHECK_BOOL_AS(tracer, restated && opened(again.st),
                           "tools::LStatFile(path, &st) != -1",
                           "Cannot stat for '" << path << "': replaced again while being read"))
      return orn::errors::kUnspecified;
    ORN_TRACE(tracer, orn::kTraceLevelDetail)
        << kOdfimPrefix << "'" << path << "' was replaced before it could be read: recording "
        << "the new object";
    m_mounts.Note(again.st.st_dev, again.hasMountId, again.mountId);
    status = again;
  }

  return ORN_CHECK_AS(tracer, m_context.sha256Provider->GetHashByIO(io.Get(), hash),
                      "m_sha256Provider->GetHashByIO(io, hash)",
                      "Cannot get hash for '" << path << "'");
}

result_t SnapshotBuilder::GetAcl(const NativePath& path, orn::types::blob_t& acl) const {
  return ReadAclAttribute(path, kAclAttribute, acl);
}

result_t SnapshotBuilder::GetDefaultAcl(const NativePath& path, orn::types::blob_t& acl) const {
  return ReadAclAttribute(path, kDefaultAclAttribute, acl);
}

result_t SnapshotBuilder::ReadAclAttribute(const NativePath& path, const char* attribute,
                                           orn::types::blob_t& acl) const {
  orn::ITracer* const tracer = m_context.tracer;
  ORN_TRACE(tracer, orn::kTraceLevelDetail) << kOdfimPrefix << __PRETTY_FUNCTION__;
  const AreaResolver& resolver = ResolverOf(m_context);
  const ssize_t size = resolver.LGetXattr(path, attribute, nullptr, 0);
  if (size == -1) {
    const int err = errno;
    // No ACL, no ACL support, or one too large to be an ACL: all recorded
    // as "no ACL".
    if (err == ENODATA || err == EOPNOTSUPP || err == E2BIG) return orn::errors::kFalse;
    ORN_TRACE(tracer, orn::kTraceLevelError)
        << kOdfimPrefix << "Cannot get size of acl attr: " << ErrnoText(err);
    return orn::errors::kUnspecified;
  }
  acl.resize(static_cast<std::size_t>(size));
  const ssize_t buflen = resolver.LGetXattr(path, attribute, acl.data(), acl.size());
  const int err = errno;
  if (!ORN_CHECK_BOOL(tracer, buflen != -1, "Cannot get acl attributes: " << ErrnoText(err)))
    return orn::errors::kUnspecified;
  return orn::errors::kOk;
}

result_t SnapshotBuilder::SaveFileSnapshot(std::uint64_t scanScopeId, FileSnapshot& snap) {
  orn::ITracer* const tracer = m_context.tracer;
  if (const result_t r =
          ORN_CHECK(tracer, GetHardlinks(scanScopeId, snap), "Cannot get harlink list");
      ORN_FAILED(r))
    return r;
  if (const result_t r = ORN_CHECK(tracer, Insert(scanScopeId, snap), "Cannot insert blob");
      ORN_FAILED(r))
    return r;
  return orn::errors::kOk;
}

result_t SnapshotBuilder::GetHardlinks(std::uint64_t scanScopeId, FileSnapshot& snap) {
  snap.paths.push_back(0);
  if (FileTypeFromMode(snap.attr) == object_type::kDirectory) return orn::errors::kOk;
  // An object with a single link has no other path to merge, unless the walk
  // reaches its file system through two mounts (a bind mount): then the
  // same object may sit at two paths and is looked up like a hard link.
  // Otherwise a stored row of it could only come from this same walk if it
  // was renamed while being walked, and Insert then replaces that row as
  // REPLACE would.
  if (snap.nlinks <= 1 && !m_mounts.MayAlias(snap.dev)) {
    m_absent = RowKey{true, m_context.buildingBaseline, scanScopeId, snap.ino, snap.dev};
    return orn::errors::kOk;
  }

  sqlite3_stmt* stmt = nullptr;
  const int rc = m_db.Prepared(StatementFor(kSelectPathsBound, m_context.buildingBaseline), stmt);
  if (!ORN_CHECK_BOOL(m_context.tracer, rc == 0, "Cannot build sql statement for " << kSelectPaths))
    return orn::errors::kUnspecified;
  StatementUse use(stmt);
  BindInt(stmt, 2, static_cast<std::int64_t>(scanScopeId));
  BindInt(stmt, 3, static_cast<std::int64_t>(snap.ino));
  BindInt(stmt, 4, static_cast<std::int64_t>(snap.dev));
  const int step = ::sqlite3_step(stmt);
  m_absent = RowKey{};
  if (step == SQLITE_DONE)
    m_absent = RowKey{true, m_context.buildingBaseline, scanScopeId, snap.ino, snap.dev};
  if (step == SQLITE_ROW) {
    const auto* stored = static_cast<const std::uint8_t*>(::sqlite3_column_blob(stmt, 0));
    const int size = ::sqlite3_column_bytes(stmt, 0);
    if (stored && size > 0) snap.paths.insert(snap.paths.end(), stored, stored + size);
  }
  return orn::errors::kOk;
}

void SnapshotBuilder::MountAliases::Note(std::uint64_t dev, bool mountKnown, std::uint64_t mount) {
  for (Device& device : m_devices) {
    if (device.dev != dev) continue;
    if (!mountKnown || mount != device.mount) device.aliased = true;
    return;
  }
  m_devices.push_back(Device{dev, mount, !mountKnown});
}

bool SnapshotBuilder::MountAliases::MayAlias(std::uint64_t dev) const {
  for (const Device& device : m_devices)
    if (device.dev == dev) return device.aliased;
  return false;
}

result_t SnapshotBuilder::Insert(std::uint64_t scanScopeId, const FileSnapshot& snap) {
  const RowKey key{true, m_context.buildingBaseline, scanScopeId, snap.ino, snap.dev};
  const bool absent = m_absent == key;
  m_absent = RowKey{};
  // A row known to be absent takes the cheaper INSERT; should one exist
  // after all, the write falls back to REPLACE.
  int step = SQLITE_CONSTRAINT;
  if (absent) {
    const result_t r = WriteRow(kInsertBound, scanScopeId, snap, step);
    if (ORN_FAILED(r)) return r;
  }
  if (step == SQLITE_CONSTRAINT) {
    const result_t r = WriteRow(kReplaceBound, scanScopeId, snap, step);
    if (ORN_FAILED(r)) return r;
  }
  // Otherwise not examined: a row that failed to be written reads as a
  // deleted object.
  return orn::errors::kOk;
}

result_t SnapshotBuilder::WriteRow(const char* bound, std::uint64_t scanScopeId,
                                   const FileSnapshot& snap, int& step) {
  sqlite3_stmt* stmt = nullptr;
  const int rc = m_db.Prepared(StatementFor(bound, m_context.buildingBaseline), stmt);
  if (!ORN_CHECK_BOOL(m_context.tracer, rc == 0, "")) return orn::errors::kUnspecified;
  StatementUse use(stmt);
  const std::int64_t values[] = {static_cast<std::int64_t>(scanScopeId),
                                 static_cast<std::int64_t>(snap.ino),
                                 static_cast<std::int64_t>(snap.dev),
                                 snap.ctime_sec,
                                 snap.ctime_nsec,
                                 snap.atime_sec,
                                 snap.atime_nsec,
                                 snap.mtime_sec,
                                 snap.mtime_nsec,
                                 static_cast<std::int64_t>(snap.attr),
                                 static_cast<std::int64_t>(snap.nlinks),
                                 snap.size,
                                 static_cast<std::int64_t>(snap.uid),
                                 static_cast<std::int64_t>(snap.gid)};
  int index = 2;  // ?2 .. ?15, in the template's order
  for (const std::int64_t value : values) BindInt(stmt, index++, value);
  BindBlob(stmt, kPathsParam, snap.paths.data(), snap.paths.size());
  if (IsZero(snap.sha256))
    BindBlob(stmt, kShaParam, nullptr, 0);
  else
    BindBlob(stmt, kShaParam, snap.sha256.data(), snap.sha256.size());
  BindBlob(stmt, kAclParam, snap.acl.data(), snap.acl.size());
  BindInt(stmt, kBirthSecParam, snap.btime_sec);
  BindInt(stmt, kBirthNsecParam, snap.btime_nsec);
  // A zero-length blob is "none"; NULL is "not known" (only a row copied
  // from an older one can be that).
  if (snap.acl_default)
    BindBlob(stmt, kDefaultAclParam, snap.acl_default->data(), snap.acl_default->size());
  else
    ::sqlite3_bind_null(stmt, kDefaultAclParam);
  step = ::sqlite3_step(stmt);
  return orn::errors::kOk;
}

}  // namespace pax::fim
