#include "host/cli/commands_accept.h"

#include <cstdio>

#include "host/cli/commands_common.h"
#include "host/cli/commands_scan.h"
#include "host/cli/commands_status.h"
#include "host/config/config.h"

namespace arvo::host {

int RunAcceptCommand(const CommandLine& line) {
  CommandLine accept = line;
  accept.autoUpdate = true;
  const int code = RunScanCommand(accept);
  if (code == kExitIssues) {
    std::fprintf(stderr, "arvo-fim: the changes above are accepted: they are the new baseline\n");
    return kExitOk;
  }
  if (code == kExitOk) std::fprintf(stderr, "arvo-fim: nothing to accept\n");
  return code;
}

int RunCheckConfigCommand(const CheckConfigOptions& options) {
  const std::string file = options.configFile.empty() ? kDefaultConfigFile : options.configFile;
  MonitorConfig config;
  std::string error;
  if (!LoadConfigFile(file, config, error)) return Fail(error);
  std::printf("%s: valid, %zu area(s), %zu watched\n", file.c_str(),
              config.settings.scanAreas.size(), OnAccessSettings(config).scanAreas.size());
  return kExitOk;
}

}  // namespace arvo::host
