// The lines a scan ends with: what failed and how to fix it, what was not
// scanned. Object names come from trace lines and are shown in their
// printable form, so each message stays one line.
#pragma once

#include <string>
#include <vector>

#include "host/runtime/on_demand_run.h"
#include "host/runtime/run_diagnostics.h"

namespace arvo::host {

// "'/x' vanished or was replaced during the walk (No such file or directory)"
std::string DescribeVanished(const ObjectFailure& failure);

// The one line (without "arvo-fim: ") that ends a failed run: the object and
// the cause when a trace line named them, the fix where there is one, else
// the task's reason and result. `hashing`: content hashes were on;
// `retries`: how many retries were made.
std::string DescribeFailedRun(const RunOutcome& outcome,
                              const std::optional<ObjectFailure>& failure, bool hashing,
                              int retries);

// "scan completed, 0 integrity issue(s), 2 areas or directories not
// scanned: '/x' (does not exist), '/proc' (pseudo file system)"; the list
// stops after a few names (each is also on a line of its own).
std::string DescribeCompletedRun(std::uint64_t issues, const std::vector<SkippedPart>& skipped);

// "not scanned: '/x': does not exist"
std::string DescribeSkipped(const SkippedPart& part);

}  // namespace arvo::host
