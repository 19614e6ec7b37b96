// Read-only looks into the on-demand monitor's SQLite database, for tests
// that check what a failed or killed run left behind.
#pragma once

#include <string>

namespace arvo::test {

// The answer of "PRAGMA integrity_check" ("ok" for a sound file), or
// "cannot open: <why>".
std::string IntegrityCheck(const std::string& database);

// Every row of every table, one line per row, sorted within each table: two
// dumps are equal exactly when the databases hold the same data.
std::string DumpDatabase(const std::string& database);

}  // namespace arvo::test
