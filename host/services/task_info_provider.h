// The host's task information service (pax::ITaskInfoProvider). The host
// runs one task per process, so every session id answers the same record.
#pragma once

#include "orn/ref_ptr.h"
#include "pax/task_info.h"

namespace arvo::host {

// Keeps a copy of `info`; the provider is immutable and thread-safe.
orn::result_t CreateTaskInfoProvider(const pax::TaskInfo& info,
                                     orn::RefPtr<pax::ITaskInfoProvider>& out);

}  // namespace arvo::host
