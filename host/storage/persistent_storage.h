// The host's persistent storage (orn::IPersistentStorage): named nodes kept
// in one file.
//
// The whole storage lives in memory and in its file (format in
// host/storage_file.h). Every change (AppendNode, RemoveNode,
// IStorageNode::SetValue) writes a new image of the whole storage with
// ReplaceFileAtomically before it takes effect in memory: when a change
// returns 0 it is durable, when it fails memory is unchanged and the file
// holds the old content (see host/atomic_file.h for the one exception).
//
// Node objects stay valid for as long as they are held. A node removed from
// the storage keeps answering GetName and GetValue; its SetValue fails with
// errors::kNotFound. An appended node whose first SetValue fails is removed
// the same way: it never reached the file. Storage and nodes are thread-safe (one lock per
// storage). Several processes must not change one file at the same time:
// the last writer's image wins.
#pragma once

#include <string>

#include "orn/persistent_storage.h"
#include "orn/ref_ptr.h"
#include "orn/tracer.h"

namespace arvo::host {

// Opens the storage kept in `file`, whose directory must exist (the caller
// creates it). A missing file is an empty storage; the file is created by
// the first change. A file that cannot be read, or that is damaged
// (errors::kCorrupted, errors::kInvalidSignature, errors::kInvalidVersion of
// host/storage_errors.h), fails creation with a level-300 trace that names
// the file and the damage; the file is left as it is for inspection.
// `tracer` may be null.
orn::result_t CreatePersistentStorage(const std::string& file, orn::ITracer* tracer,
                                      orn::RefPtr<orn::IPersistentStorage>& out);

// $ARVO_FIM_STORAGE when set and not empty, else
// "/var/opt/aldervane/arvo/private/fim_storage.dat".
std::string DefaultStorageFile();

}  // namespace arvo::host
