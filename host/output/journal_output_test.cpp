#include "host/output/journal_output.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include "host/output/host_events.h"
#include "host/util/scoped_fd.h"
#include "orn/text.h"
#include "pax/enumerations.h"

namespace arvo::host {
namespace {

using Fields = std::multimap<std::string, std::string>;

const std::string kOddPath = std::string("/srv/a\xff\xfe b\nc");

pax::ProductEvent MovedEvent() {
  pax::ProductEvent e;
  e.id = 7;
  e.eventType = pax::event_type::kSystemIntegrityIssue;
  e.severity = pax::severity::kCritical;
  e.time = 1732168260;
  e.Add(pax::field::kFileModificationType, pax::FieldValue::U32(pax::modification::kObjectMoved));
  e.Add(pax::field::kPath, pax::FieldValue::Text8(kOddPath));
  e.Add(pax::field::kFileObjectType, pax::FieldValue::U32(pax::object_type::kFile));
  e.Add(pax::field::kOriginalPath, pax::FieldValue::Text8("/srv/old"));
  e.Add(pax::field::kTaskId, pax::FieldValue::U64(42));
  e.Add(pax::field::kTaskName, pax::FieldValue::Text16(orn::text::NarrowToWide("Nightly scan")));
  e.Add(pax::field::kSha256Hash, pax::FieldValue::Text16(u"ab"));
  e.Add(2, pax::FieldValue::U32(1));  // "_unused2": not a usable journal name
  e.Add(3000, pax::FieldValue::U32(5));
  return e;
}

Fields ToMap(const std::vector<JournalField>& entry) { return Fields(entry.begin(), entry.end()); }

void ExpectMovedEventFields(const Fields& f) {
  auto one = [&](const std::string& key) {
    EXPECT_EQ(f.count(key), 1u) << key;
    const auto it = f.find(key);
    return it == f.end() ? std::string() : it->second;
  };
  EXPECT_EQ(one("PRIORITY"), "2");
  EXPECT_EQ(one("SYSLOG_IDENTIFIER"), "arvo-fim");
  EXPECT_EQ(one("ARVO_FIM_TYPE"), "SystemIntegrityIssue");
  EXPECT_EQ(one("ARVO_FIM_TYPE_ID"), "67");
  EXPECT_EQ(one("ARVO_FIM_SEVERITY"), "Critical");
  EXPECT_EQ(one("ARVO_FIM_EVENT_ID"), "7");
  EXPECT_EQ(one("ARVO_FIM_TIME"), "1732168260");
  EXPECT_EQ(one("ARVO_FIM_MODIFICATION"), "ObjectMoved");
  EXPECT_EQ(one("ARVO_FIM_OBJECT_TYPE"), "File");
  EXPECT_EQ(one("ARVO_FIM_PATH"), kOddPath);  // bytes, newline and all
  EXPECT_EQ(one("ARVO_FIM_ORIGINAL_PATH"), "/srv/old");
  EXPECT_EQ(one("ARVO_FIM_TASK_ID"), "42");
  EXPECT_EQ(one("ARVO_FIM_TASK_NAME"), "Nightly scan");
  EXPECT_EQ(one("ARVO_FIM_SHA256_HASH"), "ab");
  EXPECT_EQ(one("ARVO_FIM_FIELD_2"), "1");
  EXPECT_EQ(one("ARVO_FIM_FIELD_3000"), "5");
  const std::string message = one("MESSAGE");
  EXPECT_EQ(
      message.rfind(R"(SystemIntegrityIssue Critical "/srv/a\xff\xfe b\x0ac" ObjectMoved)", 0), 0u)
      << message;
  EXPECT_EQ(message.find('\n'), std::string::npos);
}

TEST(JournalEntryTest, CarriesHeaderAndEveryFieldByName) {
  ExpectMovedEventFields(ToMap(JournalEntry(MovedEvent())));
}

TEST(JournalEntryTest, CoverageEventsAndPriorities) {
  const Fields lost =
      ToMap(JournalEntry(MakeCoverageEvent("/srv", CoverageReason::kQueueOverflow, "", 5)));
  EXPECT_EQ(lost.find("ARVO_FIM_TYPE")->second, "CoverageLost");
  EXPECT_EQ(lost.find("ARVO_FIM_AREA")->second, "/srv");
  EXPECT_EQ(lost.find("ARVO_FIM_REASON")->second, "QueueOverflow");
  EXPECT_EQ(lost.find("ARVO_FIM_PATH")->second, "/srv");
  EXPECT_EQ(lost.find("PRIORITY")->second, "3");
  const Fields back =
      ToMap(JournalEntry(MakeCoverageEvent("/srv", CoverageReason::kRootBack, "/srv", 5)));
  EXPECT_EQ(back.find("ARVO_FIM_TYPE")->second, "CoverageRestored");
  EXPECT_EQ(back.find("PRIORITY")->second, "6");
  EXPECT_EQ(JournalPriority(pax::severity::kWarning), 4);
  EXPECT_EQ(JournalPriority(99), 5);
}

// Decodes one datagram of the native journal protocol: "KEY=value\n" lines,
// or "KEY\n<le64 size><value>\n" for values holding newlines or binary data.
bool DecodeNative(const std::string& d, Fields& out) {
  std::size_t at = 0;
  while (at < d.size()) {
    const std::size_t nl = d.find('\n', at);
    if (nl == std::string::npos) return false;
    const std::size_t eq = d.find('=', at);
    if (eq != std::string::npos && eq < nl) {
      out.emplace(d.substr(at, eq - at), d.substr(eq + 1, nl - eq - 1));
      at = nl + 1;
      continue;
    }
    if (nl + 9 > d.size()) return false;
    std::uint64_t size = 0;
    for (int i = 7; i >= 0; --i) size = size << 8 | static_cast<unsigned char>(d[nl + 1 + i]);
    const std::size_t value = nl + 9;
    if (value + size + 1 > d.size() || d[value + size] != '\n') return false;
    out.emplace(d.substr(at, nl - at), d.substr(value, size));
    at = value + size + 1;
  }
  return true;
}

// Runs in a child: a mount namespace of its own, a tmpfs over the journal's
// directory there, and a datagram socket bound where the journal listens.
// Writes the datagram the output sent to `report`, or "SKIP <why>"; ends
// the child with _exit.
void CaptureInNamespace(int report) {
  auto finish = [&](const std::string& text, int code) {
    (void)!::write(report, text.data(), text.size());
    ::_exit(code);
  };
  auto skip = [&](const char* what) {
    finish(std::string("SKIP ") + what + ": " + std::strerror(errno), 77);
  };
  if (::unshare(CLONE_NEWNS) != 0) skip("unshare(CLONE_NEWNS)");
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) skip("private mounts");
  // Over the journal's own directory when there is one, else over its
  // parent: nothing is created outside the namespace.
  struct stat st;
  const char* top = ::stat("/run/systemd/journal", &st) == 0 ? "/run/systemd/journal"
                    : ::stat("/run/systemd", &st) == 0       ? "/run/systemd"
                                                             : "/run";
  if (::mount("tmpfs", top, "tmpfs", 0, "mode=0755") != 0) skip("mount tmpfs");
  ::mkdir("/run/systemd", 0755);
  ::mkdir("/run/systemd/journal", 0755);
  ScopedFd sock(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, "/run/systemd/journal/socket");
  if (!sock.Valid() || ::bind(sock.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
    skip("bind the journal socket");
  const auto output = orn::MakeSimple<JournalOutput>();
  if (ORN_FAILED(output->Publish(MovedEvent()))) finish("publish failed", 1);
  std::string datagram(1 << 20, '\0');
  const ssize_t n = ::recv(sock.Get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
  if (n <= 0) finish("no datagram", 1);
  datagram.resize(static_cast<std::size_t>(n));
  finish(datagram, 0);
}

TEST(JournalOutputTest, SendsNativeEntriesToTheJournalSocket) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  ScopedFd readEnd(fds[0]), writeEnd(fds[1]);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    CaptureInNamespace(writeEnd.Get());
    ::_exit(1);
  }
  writeEnd = ScopedFd();
  std::string got;
  char buffer[65536];
  for (ssize_t n; (n = ::read(readEnd.Get(), buffer, sizeof buffer)) > 0;) got.append(buffer, n);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs a mount namespace (root): " << got;
  ASSERT_EQ(WEXITSTATUS(status), 0) << got;
  Fields fields;
  ASSERT_TRUE(DecodeNative(got, fields)) << got;
  ExpectMovedEventFields(fields);
}

}  // namespace
}  // namespace arvo::host
