// arvo-fim daemon: the on-access monitor, plus an on-demand run at start and
// then every --interval seconds, until SIGINT or SIGTERM.
#pragma once

#include "host/cli/cli.h"

namespace arvo::host {

// Exits 0 after a clean stop, 2 when a monitor cannot be set up. A failed
// scan is reported on stderr and does not end the daemon.
int RunDaemonCommand(const CommandLine& line);

}  // namespace arvo::host
