// Records one file system object of a scan area: status, digest, ACLs (the
// access ACL, and a directory's default ACL) and every hard-link path, into "Baseline" while the
// context's building- baseline flag is set, else into "CurrentSnaphot".
//
// Statements run on prepared statements cached by the IntegrityDatabase and
// reused for every row; paths travel only as bound blobs, never as SQL text.
// Used on the task's worker thread only; the context and the database must
// outlive the builder. Every failure is traced once here and returned.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <vector>

#include "file_snapshot.h"
#include "integrity_database.h"
#include "on_demand_context.h"
#include "orn/result.h"
#include "orn/types.h"
#include "pax_common/tools_03.h"

namespace pax::fim {

class SnapshotBuilder {
 public:
  // What the area walk tells BuildSnapshot about a directory entry, and what
  // it learns back.
  struct EntryFacts {
    // In: the mount through which the entry's directory was reached; that
    // directory's file system passed the pseudo-file-system test.
    bool directoryMountKnown = false;
    std::uint64_t directoryMount = 0;
    // In: the entry's file system was tested already (the area root).
    bool fileSystemTested = false;
    // Out: the entry lies on a pseudo file system and was skipped (result 1).
    bool pseudo = false;
    // Out: from the status taken.
    bool isDirectory = false;
    bool mountKnown = false;
    std::uint64_t mount = 0;
    std::uint64_t ino = 0;
    std::uint64_t dev = 0;
  };

  SnapshotBuilder(OnDemandContext& context, IntegrityDatabase& db);

  // Captures and saves `path`. 0 saved; 1 outside the scan scope (nothing
  // saved); a failure otherwise (errors::kUnspecified when the object cannot
  // be stat'ed, or when it was replaced twice while being read).
  [[nodiscard]] result_t BuildSnapshot(const NativePath& path, std::uint64_t scanScopeId);

  // The same for an entry of the walk, which first gets the pseudo-file-
  // system test of the walk (proc, sysfs, usbdevfs: skipped silently, result
  // 1, facts.pseudo set). The test's answer is the answer statfs gives; it
  // is asked of statfs only where it can differ from the directory's: for a
  // symbolic link (statfs follows it), a mount point (an entry reached
  // through another mount than its directory) or when mounts are unknown.
  [[nodiscard]] result_t BuildSnapshot(const NativePath& path, std::uint64_t scanScopeId,
                                       EntryFacts& facts);

  // SHA-256 of the content, read through the host's file factory. `status`
  // is the status the caller took. A file whose open identity (dev, ino)
  // differs from it was replaced in between: the status is taken again and,
  // when it now names the opened file, replaces `status` so that the digest
  // and the status describe the same object; when it names yet another
  // object the call fails with errors::kUnspecified, as for an object that
  // cannot be stat'ed.
  [[nodiscard]] result_t GetFileHash(const NativePath& path, tools::ObjectStatus& status,
                                     Sha256Digest& hash);

  // The raw access ACL attribute. 0 read; 1 the object has none (ENODATA,
  // EOPNOTSUPP, E2BIG: `acl` unchanged); errors::kUnspecified otherwise.
  [[nodiscard]] result_t GetAcl(const NativePath& path, orn::types::blob_t& acl) const;
  // The raw default ACL attribute of a directory, read and answered as
  // GetAcl reads and answers the access ACL.
  [[nodiscard]] result_t GetDefaultAcl(const NativePath& path, orn::types::blob_t& acl) const;

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

  // Whether two paths of the walk can reach the same single-link object:
  // only through two mounts of one file system (a bind mount, or the file
  // system mounted twice), which the mount ids of the objects visited
  // reveal. Devices whose mounts are unknown count as aliased.
  class MountAliases {
   public:
    void Note(std::uint64_t dev, bool mountKnown, std::uint64_t mount);
    bool MayAlias(std::uint64_t dev) const;

   private:
    struct Device {
      std::uint64_t dev;
      std::uint64_t mount;
      bool aliased;
    };
    std::vector<Device> m_devices;  // a handful per walk
  };

  result_t Capture(const NativePath& path, std::uint64_t scanScopeId, EntryFacts* facts);
  // GetAcl and GetDefaultAcl: the extended attribute `attribute`, taken
  // beneath the walk's directory.
  result_t ReadAclAttribute(const NativePath& path, const char* attribute,
                            orn::types::blob_t& acl) const;

  OnDemandContext& m_context;
  IntegrityDatabase& m_db;
  RowKey m_absent;
  MountAliases m_mounts;
};

}  // namespace pax::fim
