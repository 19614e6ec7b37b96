// Fuzzes the glob matcher. Beyond running clean under the sanitizers:
// - a pattern that escapes every byte of a text matches exactly that text;
// - on printable ASCII without sets and "**" the matcher agrees with
//   fnmatch(3), whose rules it follows there (its fast paths included).
#include <fnmatch.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "host/services/glob.h"

namespace {

bool PlainAscii(const std::string& s) {
  for (const char c : s)
    if (c < 0x20 || c > 0x7e || c == '[') return false;
  return s.find("**") == std::string::npos;
}

// A trailing lone backslash is a literal here and unspecified for fnmatch.
bool EndsInEscape(const std::string& s) {
  std::size_t n = 0;
  for (auto it = s.rbegin(); it != s.rend() && *it == '\\'; ++it) ++n;
  return n % 2 == 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  const bool pathname = in.ConsumeBool();
  const std::string pattern = in.ConsumeRandomLengthString(256);
  const std::string text = in.ConsumeRandomLengthString(256);

  const arvo::host::Glob glob(pattern, pathname);
  const bool matched = glob.Match(text);
  if (glob.IsLiteral() && matched != (pattern == text)) std::abort();

  std::string escaped;
  for (const char c : text) escaped += {'\\', c};
  if (!arvo::host::Glob(escaped, pathname).Match(text)) std::abort();

  if (PlainAscii(pattern) && PlainAscii(text) && !EndsInEscape(pattern)) {
    const bool reference = fnmatch(pattern.c_str(), text.c_str(), pathname ? FNM_PATHNAME : 0) == 0;
    if (reference != matched) std::abort();
  }
  return 0;
}
