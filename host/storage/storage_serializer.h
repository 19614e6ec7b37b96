// The host's structure serializer (orn::IStorageSerializer2).
//
// A node's value holds: the magic "ORNS", a format version byte (1), the
// record's type id (u32, little-endian), its type name (LEB128 length and
// bytes) and the record's value tree (host/value_codec.h).
//
// Serialize writes any record that has a descriptor, registered or not.
// Deserialize reads only registered types; it fails with
// errors::kInvalidSignature or errors::kInvalidVersion (host/storage_errors.h)
// for foreign bytes, orn::errors::kClassNotFound for an unregistered type id,
// errors::kInvalidType when the stored type name differs from the registered
// one or the descriptor refuses the tree, and errors::kCorrupted for
// truncated or malformed data. Any byte sequence is safe to feed it.
// `out` is changed only on success. flags must be 0 and reserved null
// (orn::errors::kInvalidArgument otherwise). Thread-safe.
#pragma once

#include "orn/persistent_storage.h"
#include "orn/ref_ptr.h"

namespace arvo::host {

// The ODFIMSettings descriptor (settings/fim_settings_serial.h) is
// registered already.
orn::result_t CreateStorageSerializer(orn::RefPtr<orn::IStorageSerializer2>& out);

}  // namespace arvo::host
