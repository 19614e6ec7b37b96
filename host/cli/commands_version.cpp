#include "host/cli/commands_version.h"

#include <cstdio>

#include "host/cli/commands_common.h"

#ifndef ARVO_FIM_VERSION
#define ARVO_FIM_VERSION "0.1.0"
#endif

namespace arvo::host {

int RunVersionCommand(const CommandLine& line) {
  std::printf("arvo-fim %s\n", ARVO_FIM_VERSION);
  ModuleLoader module;
  std::string error;
  if (LoadModule(line, module, error)) {
    std::printf("module: %s\n", module.Path().c_str());
  } else {
    std::printf("module: %s (%s)\n", ResolveModulePath(line.modulePath).c_str(), error.c_str());
  }
  std::fflush(stdout);
  return kExitOk;
}

}  // namespace arvo::host
