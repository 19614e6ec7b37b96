// arvo-fim status: what the monitors have recorded and whether a daemon
// runs, read without disturbing it (the database is opened read-only).
#pragma once

#include <cstdio>
#include <string>

namespace arvo::host {

// The configuration `arvo-fim status` and `check-config` read when none is
// given (the packaged default).
inline constexpr char kDefaultConfigFile[] = "/etc/arvo-fim/arvo-fim.toml";

struct StatusOptions {
  std::string configFile;  // empty: kDefaultConfigFile when it exists, else none
};

// Prints, on `out`: the daemon (pid or not running), the database and its
// size, the last run from the state file, the watches in use against the
// system limit, and per area its baseline rows. Exit 0; 2 when the
// configuration is not valid.
int RunStatusCommand(const StatusOptions& options, std::FILE* out = stdout);

}  // namespace arvo::host
