// arvo-fim watch: the on-access monitor until SIGINT or SIGTERM.
#pragma once

#include "host/cli/cli.h"

namespace arvo::host {

// Prints "arvo-fim: watching N area(s)" on stderr once the monitor has
// started, then one line per event until a signal; exits 0 after a clean
// stop, 2 when the monitor cannot be set up or started.
int RunWatchCommand(const CommandLine& line);

}  // namespace arvo::host
