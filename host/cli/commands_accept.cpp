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
  const std::size_t withInotify = OnAccessSettings(config, false).scanAreas.size();
  const std::size_t withFanotify = OnAccessSettings(config, true).scanAreas.size();
  std::printf("%s: valid, %zu area(s), %zu watched", file.c_str(), config.settings.scanAreas.size(),
              withInotify);
  if (withFanotify != withInotify) std::printf(" (%zu with fanotify)", withFanotify);
  std::printf("\n");
  return kExitOk;
}

}  // namespace arvo::host
