// The private data directories of the host (database, persistent storage).
#pragma once

#include <string>

namespace arvo::host {

inline constexpr char kDefaultDatabaseFile[] = "/var/opt/aldervane/arvo/private/fim.db";

// The on-demand monitor's database: $ARVO_FIM_DB when set and non-empty,
// else kDefaultDatabaseFile. The module opens the same file; the host only
// prepares its directory.
std::string DatabaseFile();

// Creates the directory of `file` and its missing parents with mode 0700
// (existing directories are left as they are). On failure returns false and
// sets `error` naming the directory.
bool EnsureParentDirectory(const std::string& file, std::string& error);

}  // namespace arvo::host
