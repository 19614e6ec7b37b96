// arvo-fim daemon: the on-access monitor, plus on-demand runs at start, on
// schedule and after a reload, until SIGINT or SIGTERM; SIGHUP reloads the
// configuration, SIGUSR1 reopens the events log (host/runtime/daemon_loop.h).
#pragma once

#include "host/cli/cli.h"

namespace arvo::host {

// Exits 0 after a clean stop, 2 when a monitor cannot be set up. A failed
// scan is reported on stderr and does not end the daemon.
int RunDaemonCommand(const CommandLine& line);

}  // namespace arvo::host
