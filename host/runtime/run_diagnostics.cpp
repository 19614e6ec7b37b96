#include "host/runtime/run_diagnostics.h"

#include "orn/tracer.h"

namespace arvo::host {
namespace {

constexpr std::string_view kUnspecified = "Unspecified error";

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// The text between the first single quote and the last one that ends a
// word (followed by the end, ':', '.' or a space): a path may hold quotes of
// its own, and the text after it may hold an apostrophe ("doesn't").
std::optional<std::string_view> QuotedObject(std::string_view text, std::size_t& close) {
  const std::size_t open = text.find('\'');
  if (open == std::string_view::npos) return std::nullopt;
  for (close = text.size(); close-- > open + 1;) {
    if (text[close] != '\'') continue;
    const char next = close + 1 < text.size() ? text[close + 1] : ':';
    if (next == ':' || next == '.' || next == ' ') return text.substr(open + 1, close - open - 1);
  }
  return std::nullopt;
}

// "result = 0x80000045 (Access denied)..." or "'/x': 0x80000045 (Access
// denied)" -> "Access denied".
std::string ResultMessage(std::string_view text) {
  std::size_t at = text.find("result = 0x");
  if (at == std::string_view::npos) at = text.find("': 0x");
  if (at == std::string_view::npos) return {};
  const std::size_t open = text.find('(', at);
  const std::size_t close = text.find(')', open);
  if (open == std::string_view::npos || close == std::string_view::npos) return {};
  return std::string(text.substr(open + 1, close - open - 1));
}

ObjectFailure::Kind Classify(std::string_view line, std::string_view cause) {
  if (Contains(cause, "No such file") || Contains(cause, "Not a directory") ||
      Contains(cause, "not found") || Contains(line, "was replaced"))
    return ObjectFailure::Kind::kVanished;
  if (Contains(cause, "Access denied") || Contains(cause, "Permission denied"))
    return ObjectFailure::Kind::kAccessDenied;
  return ObjectFailure::Kind::kOther;
}

}  // namespace

std::optional<ObjectFailure> ParseFailureLine(std::string_view text, std::string_view earlier) {
  std::size_t close = 0;
  const auto object = QuotedObject(text, close);
  if (!object) return std::nullopt;
  ObjectFailure failure;
  failure.object = std::string(*object);
  const std::string_view after = text.substr(close + 1);
  if (after.substr(0, 2) == ": ") {
    failure.cause = std::string(after.substr(2));
  } else if (Contains(after, "was replaced")) {
    failure.cause = "replaced while it was read";
  } else {
    failure.cause = ResultMessage(text);
  }
  if (!earlier.empty() && (failure.cause.empty() || failure.cause == kUnspecified))
    failure.cause = std::string(earlier);
  failure.kind = Classify(text, failure.cause);
  return failure;
}

std::optional<SkippedPart> ParseSkipLine(std::string_view text) {
  if (!Contains(text, "Skip it")) return std::nullopt;
  std::size_t close = 0;
  const auto object = QuotedObject(text, close);
  if (!object) return std::nullopt;
  SkippedPart part{std::string(*object), {}};
  if (Contains(text, "doesn't exist")) {
    part.why = "does not exist";
  } else if (Contains(text, "magic file")) {
    part.why = "pseudo file system";
  } else {
    part.why = ResultMessage(text);
    if (part.why.empty()) part.why = "cannot be read";
  }
  return part;
}

void RunDiagnostics::OnLine(std::uint32_t level, std::string_view text) {
  if (level == orn::kTraceLevelError) {
    std::lock_guard lock(m_mutex);
    if (m_failure) return;
    m_failure = ParseFailureLine(text, m_earlierCause);
    // "Cannot get size of acl attr: No such file or directory": the cause
    // of the line that follows and names the object.
    const std::size_t colon = text.rfind(": ");
    if (!m_failure && colon != std::string_view::npos)
      m_earlierCause = std::string(text.substr(colon + 2));
  } else if (level == orn::kTraceLevelWarning) {
    auto part = ParseSkipLine(text);
    if (!part) return;
    std::lock_guard lock(m_mutex);
    m_skipped.push_back(std::move(*part));
  }
}

void RunDiagnostics::Reset() {
  std::lock_guard lock(m_mutex);
  m_failure.reset();
  m_earlierCause.clear();
  m_skipped.clear();
}

std::optional<ObjectFailure> RunDiagnostics::Failure() const {
  std::lock_guard lock(m_mutex);
  return m_failure;
}

std::vector<SkippedPart> RunDiagnostics::Skipped() const {
  std::lock_guard lock(m_mutex);
  return m_skipped;
}

}  // namespace arvo::host
