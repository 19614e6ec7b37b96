// arvo-fim: parses the command line and runs one command.
#include <signal.h>

#include <cstdio>
#include <string>

#include "host/cli/cli.h"
#include "host/cli/commands_accept.h"
#include "host/cli/commands_common.h"
#include "host/cli/commands_daemon.h"
#include "host/cli/commands_list.h"
#include "host/cli/commands_scan.h"
#include "host/cli/commands_status.h"
#include "host/cli/commands_version.h"
#include "host/cli/commands_watch.h"
#include "host/util/standard_streams.h"

int main(int argc, char** argv) {
  using namespace arvo::host;
  ReserveStandardDescriptors();
  // A reader that goes away is an error the commands report (EPIPE), not a
  // silent death that would leave the user without the reason.
  ::signal(SIGPIPE, SIG_IGN);
  CommandLine line;
  std::string error;
  if (!ParseCommandLine(argc, argv, line, error)) {
    std::fprintf(stderr, "arvo-fim: %s\n%s\n", error.c_str(), UsageLine());
    return kExitFailure;
  }
  switch (line.command) {
    case Command::kHelp:
      std::fputs(line.helpText.c_str(), stdout);
      return kExitOk;
    case Command::kVersion:
      return RunVersionCommand(line);
    case Command::kList:
      return RunListCommand(line);
    case Command::kWatch:
      return RunWatchCommand(line);
    case Command::kScan:
      return RunScanCommand(line);
    case Command::kDaemon:
      return RunDaemonCommand(line);
    case Command::kStatus:
      return RunStatusCommand(StatusOptions{line.configFile});
    case Command::kAccept:
      return RunAcceptCommand(line);
    case Command::kCheckConfig:
      return RunCheckConfigCommand(CheckConfigOptions{line.configFile});
    case Command::kNone:
      break;
  }
  return kExitFailure;
}
