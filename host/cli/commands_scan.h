// arvo-fim scan: one run of the on-demand monitor.
#pragma once

#include "host/cli/cli.h"

namespace arvo::host {

// Exit codes: 0 the run completed without an integrity issue (a first
// baseline counts as none), 1 it published at least one
// "SystemIntegrityIssue", 2 it failed (or could not start), 3 it was
// interrupted by SIGINT/SIGTERM.
int RunScanCommand(const CommandLine& line);

}  // namespace arvo::host
