// What the integrity database holds, read without disturbing a daemon that
// uses it: the connection is read-only and never takes a write lock, except
// to roll back the journal a run left when it died mid-transaction.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace arvo::host {

struct ScopeSummary {
  std::uint64_t taskId = 0;
  std::string path;
  std::uint64_t baselineRows = 0;
};

// Every scan scope of the database `file` with its baseline row count, in
// the order they were made. On failure (no database yet, not a database,
// busy beyond a short wait) returns false with `error` set.
bool ReadDatabaseSummary(const std::string& file, std::vector<ScopeSummary>& out,
                         std::string& error);

}  // namespace arvo::host
