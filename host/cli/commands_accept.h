// arvo-fim accept: after a legitimate change, one on-demand run with the
// automatic baseline update on, so that the current state becomes the
// baseline; and arvo-fim check-config: validates a configuration.
#pragma once

#include <string>

#include "host/cli/cli.h"

namespace arvo::host {

// The areas and options are those of `scan` (configuration file, PATH
// arguments). Every change the run finds is printed, as scan prints it, and
// is then the baseline. Exit 0 (changes accepted, or none to accept), 2 the
// run failed, 3 interrupted.
int RunAcceptCommand(const CommandLine& line);

struct CheckConfigOptions {
  std::string configFile;  // empty: kDefaultConfigFile
};

// Exit 0 with a one-line summary on stdout, or 2 with the
// "<file>:<line>:<column>: <key>: <what>" message on stderr.
int RunCheckConfigCommand(const CheckConfigOptions& options);

}  // namespace arvo::host
