#include "host/runtime/service_notifier.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace arvo::host {

namespace {

bool Set(const char* name) {
  const char* value = std::getenv(name);
  return value && *value;
}

}  // namespace

bool StartedBySystemd() { return Set("INVOCATION_ID") || Set("NOTIFY_SOCKET"); }

ServiceNotifier::ServiceNotifier() {
  m_enabled = Set("NOTIFY_SOCKET");
  if (!m_enabled) return;
  std::uint64_t usec = 0;
  // > 0 only when $WATCHDOG_USEC is set and $WATCHDOG_PID, if set, is us.
  if (::sd_watchdog_enabled(0, &usec) > 0 && usec > 0)
    m_watchdogInterval = std::chrono::milliseconds(std::max<std::uint64_t>(usec / 2000, 1));
}

void ServiceNotifier::Ready() { Send("READY=1"); }

void ServiceNotifier::Status(const std::string& text) {
  if (!m_enabled || text == m_status) return;
  m_status = text;
  Send("STATUS=" + text);
}

void ServiceNotifier::Watchdog() { Send("WATCHDOG=1"); }

void ServiceNotifier::Reloading() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const auto usec = static_cast<unsigned long long>(now.tv_sec) * 1000000ULL +
                    static_cast<unsigned long long>(now.tv_nsec) / 1000ULL;
  Send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(usec));
}

void ServiceNotifier::Stopping() { Send("STOPPING=1"); }

void ServiceNotifier::Send(const std::string& message) {
  if (!m_enabled) return;
  // A lost notification is not worth ending the service for: say so once
  // per failure and go on.
  if (const int r = ::sd_notify(0, message.c_str()); r < 0)
    std::fprintf(stderr, "arvo-fim: cannot notify the service manager: %s\n", std::strerror(-r));
}

}  // namespace arvo::host
