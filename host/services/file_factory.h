// The host's file factory (orn::IFileFactory): read-only opens for hashing.
//
// CreateFile supports exactly accessMask file::kAccessRead and disposition
// file::kOpenExisting (others: errors::kNotSupported); shareMode and
// flagsAndAttributes are ignored. The open never follows a final symbolic
// link (a link fails with the ELOOP result), never blocks on a FIFO or
// device (O_NONBLOCK; anything but a regular file is then refused: a
// directory with the EISDIR result, other types with errors::kNotSupported),
// asks for O_NOATIME and retries without it where the kernel refuses it
// (EPERM: the caller does not own the file), and closes on exec. Paths longer
// than PATH_MAX are opened by walking relative to intermediate directories.
// OS failures map through orn::ResultFromErrno.
//
// The same object offers orn::IFileFactoryAt: CreateFileAt opens a relative
// path beneath a directory descriptor with the same rules, resolving no
// component through a symbolic link (pax_common/beneath.h), so that a walk
// that holds its directories open reads the files it found there and never
// files a swapped-in link points at.
//
// The IIO owns its descriptor. Read retries EINTR; GetIdentity reports fstat
// of the open descriptor.
#pragma once

#include "orn/file.h"
#include "orn/ref_ptr.h"

namespace arvo::host {

// The factory is stateless and thread-safe.
orn::result_t CreateFileFactory(orn::RefPtr<orn::IFileFactory>& out);

}  // namespace arvo::host
