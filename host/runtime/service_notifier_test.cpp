#include "host/runtime/service_notifier.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "host/util/scoped_fd.h"
#include "host/util/test_temp_dir.h"

namespace arvo::host {
namespace {

// A notify socket of the test's own, set in the environment for the
// notifier made while it lives.
class NotifySocket {
 public:
  NotifySocket(const arvo::test::TempDir& dir, const char* watchdogUsec, const char* watchdogPid) {
    m_fd.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = dir / "notify";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(m_fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    Set("WATCHDOG_USEC", watchdogUsec);
    Set("WATCHDOG_PID", watchdogPid);
  }
  ~NotifySocket() {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) ::unsetenv(name);
  }

  // The datagrams sent so far (sendmsg on a local socket is done when it
  // returns, so no waiting is needed).
  std::vector<std::string> Messages() {
    std::vector<std::string> out;
    char buffer[4096];
    for (ssize_t n; (n = ::recv(m_fd.Get(), buffer, sizeof buffer, 0)) > 0;)
      out.emplace_back(buffer, static_cast<std::size_t>(n));
    return out;
  }

 private:
  static void Set(const char* name, const char* value) {
    if (value)
      ::setenv(name, value, 1);
    else
      ::unsetenv(name);
  }
  ScopedFd m_fd;
};

TEST(ServiceNotifierTest, SendsTheProtocolLinesAndEachStatusOnce) {
  arvo::test::TempDir dir;
  NotifySocket socket(dir, "200000", std::to_string(::getpid()).c_str());
  ServiceNotifier notifier;
  ASSERT_TRUE(notifier.Enabled());
  EXPECT_EQ(notifier.WatchdogInterval(), std::chrono::milliseconds(100));
  notifier.Ready();
  notifier.Status("scanning area 1 of 2, 5 objects");
  notifier.Status("scanning area 1 of 2, 5 objects");
  notifier.Watchdog();
  notifier.Reloading();
  notifier.Stopping();
  const std::vector<std::string> messages = socket.Messages();
  ASSERT_EQ(messages.size(), 5u);
  EXPECT_EQ(messages[0], "READY=1");
  EXPECT_EQ(messages[1], "STATUS=scanning area 1 of 2, 5 objects");
  EXPECT_EQ(messages[2], "WATCHDOG=1");
  EXPECT_EQ(messages[3].rfind("RELOADING=1\nMONOTONIC_USEC=", 0), 0u) << messages[3];
  EXPECT_EQ(messages[4], "STOPPING=1");
}

TEST(ServiceNotifierTest, AWatchdogMeantForAnotherProcessIsNotOurs) {
  arvo::test::TempDir dir;
  NotifySocket socket(dir, "200000", "1");
  EXPECT_EQ(ServiceNotifier().WatchdogInterval().count(), 0);
}

TEST(ServiceNotifierTest, WithoutANotifySocketNothingIsSent) {
  ::unsetenv("NOTIFY_SOCKET");
  ::setenv("WATCHDOG_USEC", "200000", 1);
  ServiceNotifier notifier;
  EXPECT_FALSE(notifier.Enabled());
  EXPECT_EQ(notifier.WatchdogInterval().count(), 0);
  notifier.Ready();  // must not fail or block
  ::unsetenv("WATCHDOG_USEC");
}

}  // namespace
}  // namespace arvo::host
