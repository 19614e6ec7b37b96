// arvo-fim --version: the host's version and the module it would load.
#pragma once

#include "host/cli/cli.h"

namespace arvo::host {

// Always exits 0; says whether the module can be loaded.
int RunVersionCommand(const CommandLine& line);

}  // namespace arvo::host
