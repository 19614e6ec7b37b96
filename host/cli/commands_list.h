// arvo-fim list (or modules): what the module offers, found by calling its
// entry points: the factories of both task classes and the publisher
// service with the interfaces it answers.
#pragma once

#include "host/cli/cli.h"

namespace arvo::host {

// Exits 0 when the module offers all three classes, 1 when it lacks one,
// 2 when it cannot be loaded.
int RunListCommand(const CommandLine& line);

}  // namespace arvo::host
