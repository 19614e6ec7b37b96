// A journal of a test's own: a forked child enters a mount namespace of its
// own, mounts a tmpfs over the journal's directory there (nothing changes
// outside the namespace) and binds a datagram socket at the journal's
// socket path; whatever the child then sends to the journal, itself or
// through a program it runs, is captured and decoded.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace arvo::test {

// One journal entry: field name -> value (bytes). A name may repeat.
using JournalFields = std::multimap<std::string, std::string>;

struct JournalCapture {
  bool skipped = false;  // the namespace could not be made (not root, say)
  std::string problem;   // why it was skipped, or what failed
  std::vector<JournalFields> entries;
};

// Runs `body` in the child once the socket listens; `body` returns false
// when it failed. Needs a process with no other threads than the caller's
// to fork from safely: call it from a test's main thread.
JournalCapture CaptureJournal(const std::function<bool()>& body);

// Decodes one datagram of the native journal protocol: "KEY=value\n"
// lines, or "KEY\n<little-endian 64-bit size><value>\n" for values with
// newlines or binary data.
bool DecodeJournalDatagram(const std::string& datagram, JournalFields& out);

// The single value of `name` in `entry`; empty when absent or repeated.
std::string JournalValue(const JournalFields& entry, const std::string& name);

}  // namespace arvo::test
