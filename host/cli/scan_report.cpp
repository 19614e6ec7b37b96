#include "host/cli/scan_report.h"

#include "host/util/display_text.h"

namespace arvo::host {
namespace {

constexpr std::size_t kNamesInClosingLine = 3;

std::string Quoted(const std::string& path) {
  std::string out = "'";
  AppendDisplayBytes(out, path);
  out += "'";
  return out;
}

}  // namespace

std::string DescribeVanished(const ObjectFailure& failure) {
  return Quoted(failure.object) + " vanished or was replaced during the walk (" + failure.cause +
         ")";
}

std::string DescribeFailedRun(const RunOutcome& outcome,
                              const std::optional<ObjectFailure>& failure, bool hashing,
                              int retries) {
  const std::string task = outcome.reason + " (" + orn::ResultToTraceText(outcome.result) + ")";
  if (!failure) return "scan failed: " + task;
  const std::string object = Quoted(failure->object);
  switch (failure->kind) {
    case ObjectFailure::Kind::kVanished:
      return "scan failed: " + DescribeVanished(*failure) + ", also after " +
             std::to_string(retries) +
             " retries; exclude the busy directory with --exclude, or scan when it is quiet";
    case ObjectFailure::Kind::kAccessDenied:
      return "scan failed: cannot read " + object + ": " + failure->cause + "; run as root" +
             (hashing ? ", scan with --no-hash" : "") + " or exclude it with --exclude " + object;
    case ObjectFailure::Kind::kOther:
      break;
  }
  return "scan failed: " + object + ": " + failure->cause + "; " + task;
}

std::string DescribeCompletedRun(std::uint64_t issues, const std::vector<SkippedPart>& skipped) {
  std::string line = "scan completed, " + std::to_string(issues) + " integrity issue(s)";
  if (skipped.empty()) return line;
  line += ", " + std::to_string(skipped.size()) + " areas or directories not scanned: ";
  for (std::size_t i = 0; i < skipped.size() && i < kNamesInClosingLine; ++i) {
    if (i) line += ", ";
    line += Quoted(skipped[i].path) + " (" + skipped[i].why + ")";
  }
  if (skipped.size() > kNamesInClosingLine) line += ", ...";
  return line;
}

std::string DescribeSkipped(const SkippedPart& part) {
  return "not scanned: " + Quoted(part.path) + ": " + part.why;
}

}  // namespace arvo::host
