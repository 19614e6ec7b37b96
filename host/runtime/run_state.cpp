#include "host/runtime/run_state.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <vector>

#include "host/storage/atomic_file.h"
#include "host/util/private_directory.h"

namespace arvo::host {
namespace {

std::string Beside(const std::string& file, const char* name) {
  return (std::filesystem::path(file).parent_path() / name).string();
}

std::string OneLine(std::string text) {
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
  return text;
}

template <class Number>
void ParseNumber(const std::string& text, Number& out) {
  Number value{};
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec == std::errc() && end == text.data() + text.size()) out = value;
}

}  // namespace

std::string RunStateFile() { return Beside(DatabaseFile(), "arvo-fim.state"); }

std::string DaemonPidFile() { return Beside(DatabaseFile(), "arvo-fim.daemon.pid"); }

std::string FormatRunState(const RunState& state) {
  std::ostringstream s;
  s << "finished_at=" << state.finishedAt << "\ncommand=" << OneLine(state.command)
    << "\nresult=" << OneLine(state.result) << "\nissues=" << state.issues
    << "\nreason=" << OneLine(state.reason) << "\nwatches=" << state.watches
    << "\nbackend=" << OneLine(state.backend) << '\n';
  return s.str();
}

RunState ParseRunState(const std::string& text) {
  RunState state;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = line.substr(0, eq);
    const std::string value = line.substr(eq + 1);
    if (key == "finished_at") ParseNumber(value, state.finishedAt);
    if (key == "command") state.command = value;
    if (key == "result") state.result = value;
    if (key == "issues") ParseNumber(value, state.issues);
    if (key == "reason") state.reason = value;
    if (key == "watches") ParseNumber(value, state.watches);
    if (key == "backend") state.backend = value;
  }
  return state;
}

bool WriteRunState(const std::string& file, const RunState& state, std::string& error) {
  const std::string text = FormatRunState(state);
  const orn::result_t r =
      ReplaceFileAtomically(file, std::vector<std::uint8_t>(text.begin(), text.end()));
  if (ORN_FAILED(r)) {
    error = "cannot write the state file '" + file + "': " + orn::ResultToTraceText(r);
    return false;
  }
  return true;
}

bool ReadRunState(const std::string& file, RunState& state) {
  std::vector<std::uint8_t> data;
  if (ORN_FAILED(ReadWholeFile(file, data))) return false;
  state = ParseRunState(std::string(data.begin(), data.end()));
  return true;
}

namespace {

template <class Change>
void UpdateRunState(Change&& change) {
  const std::string file = RunStateFile();
  RunState state;
  (void)ReadRunState(file, state);
  change(state);
  std::string error;
  if (!WriteRunState(file, state, error)) std::fprintf(stderr, "arvo-fim: %s\n", error.c_str());
}

const char* ResultName(RunOutcome::Kind kind) {
  switch (kind) {
    case RunOutcome::Kind::kCompleted:
      return "completed";
    case RunOutcome::Kind::kInterrupted:
      return "interrupted";
    case RunOutcome::Kind::kFailed:
      break;
  }
  return "failed";
}

}  // namespace

void RecordRun(const std::string& command, const RunOutcome& outcome) {
  UpdateRunState([&](RunState& state) {
    state.finishedAt = static_cast<std::int64_t>(std::time(nullptr));
    state.command = command;
    state.result = ResultName(outcome.kind);
    state.issues = outcome.issues;
    state.reason = outcome.reason;
  });
}

void RecordWatches(std::int64_t watches, const std::string& backend) {
  UpdateRunState([&](RunState& state) {
    state.watches = watches;
    state.backend = backend;
  });
}

}  // namespace arvo::host
