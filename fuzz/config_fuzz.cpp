// Fuzzes the configuration loader: any text is either refused with a
// message naming the source, or yields areas that are absolute, normalized
// and distinct.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "host/config/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  arvo::host::MonitorConfig config;
  std::string error;
  if (!arvo::host::ParseConfig(text, "fuzz.toml", config, error)) {
    if (error.rfind("fuzz.toml", 0) != 0) std::abort();
    return 0;
  }
  std::set<std::string> seen;
  for (const auto& area : config.settings.scanAreas) {
    if (area.path.empty() || area.path[0] != '/') std::abort();
    if (arvo::host::NormalizeAreaPath(area.path) != area.path) std::abort();
    if (!seen.insert(area.path).second) std::abort();
  }
  return 0;
}
