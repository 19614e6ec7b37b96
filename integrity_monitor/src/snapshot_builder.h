// Records one file system object of a scan area: status, digest, ACL and
// every hard-link path, into "Baseline" while the context's building-
// baseline flag is set, else into "CurrentSnaphot".
//
// Statements run on prepared statements cached by the IntegrityDatabase and
// reused for every row; paths travel only as bound blobs, never as SQL text.
// Used on the task's worker thread only; the context and the database must
// outlive the builder. Every failure is traced once here and returned.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "file_snapshot.h"
#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/result.h"
#include "orn/types.h"

namespace pax::fim {

class SnapshotBuilder {
 public:
  SnapshotBuilder(OnDemandContext& context, IntegrityDatabase& db);

  // Captures and saves `path`. 0 saved; 1 outside the scan scope (nothing
  // saved); a failure otherwise (errors::kUnspecified when the object cannot
  // be stat'ed).
  [[nodiscard]] result_t BuildSnapshot(const NativePath& path, std::uint64_t scanScopeId);

  // SHA-256 of the content, read through the host's file factory. `st` is
  // the status the caller took: a file whose open identity (dev, ino)
  // differs from it was replaced in between and fails with
  // errors::kNotMatched rather than being hashed as the old one.
  [[nodiscard]] result_t GetFileHash(const NativePath& path, const struct stat& st,
                                     Sha256Digest& hash);

  // The raw access ACL attribute. 0 read; 1 the object has none (ENODATA,
  // EOPNOTSUPP, E2BIG: `acl` unchanged); errors::kUnspecified otherwise.
  [[nodiscard]] result_t GetAcl(const NativePath& path, orn::types::blob_t& acl) const;

  // GetHardlinks, then Insert.
  [[nodiscard]] result_t SaveFileSnapshot(std::uint64_t scanScopeId, FileSnapshot& snap);

  // Terminates snap.paths with a NUL and, unless it is a directory,
  // appends the paths already stored for (scope, ino, dev) in the target
  // table. Nothing found is not a failure.
  [[nodiscard]] result_t GetHardlinks(std::uint64_t scanScopeId, FileSnapshot& snap);

  // Writes the row (REPLACE on the key scope, ino, dev: the last visit of an
  // inode wins). A failing write is not reported: change detection reads a
  // missing row as a deleted object.
  [[nodiscard]] result_t Insert(std::uint64_t scanScopeId, const FileSnapshot& snap);

 private:
  // Binds `snap` to the prepared form of `bound` and steps it once; `step`
  // receives SQLite's answer.
  [[nodiscard]] result_t WriteRow(const char* bound, std::uint64_t scanScopeId,
                                  const FileSnapshot& snap, int& step);

  // A row the last GetHardlinks found (or knew to be) absent: Insert may then
  // add it without REPLACE's conflict handling (same result, less work).
  struct RowKey {
    bool valid = false;
    bool baseline = false;
    std::uint64_t scanScopeId = 0;
    std::uint64_t ino = 0;
    std::uint64_t dev = 0;
    bool operator==(const RowKey&) const = default;
  };

  OnDemandContext& m_context;
  IntegrityDatabase& m_db;
  RowKey m_absent;
};

}  // namespace pax::fim
