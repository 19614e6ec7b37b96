// The service manager's notification protocol (sd_notify): readiness,
// status lines, watchdog keep-alives, reload and stop.
#pragma once

#include <chrono>
#include <string>

namespace arvo::host {

// Whether systemd started this process ($INVOCATION_ID or $NOTIFY_SOCKET
// set): what `[daemon] journal = "auto"` turns on for.
bool StartedBySystemd();

// Talks to systemd when the process was started with $NOTIFY_SOCKET; does
// nothing at all otherwise. Used by one thread (the daemon loop's).
class ServiceNotifier {
 public:
  // Reads the environment once ($NOTIFY_SOCKET, $WATCHDOG_USEC,
  // $WATCHDOG_PID).
  ServiceNotifier();

  bool Enabled() const { return m_enabled; }
  // How often to send WATCHDOG=1: half the service's watchdog time-out;
  // zero when no watchdog is asked for.
  std::chrono::milliseconds WatchdogInterval() const { return m_watchdogInterval; }

  void Ready();
  // One line of what the service is doing; sent only when it changed.
  void Status(const std::string& text);
  void Watchdog();
  // RELOADING=1 (with the time it began); Ready() ends the reload.
  void Reloading();
  void Stopping();

 private:
  void Send(const std::string& message);

  bool m_enabled = false;
  std::chrono::milliseconds m_watchdogInterval{0};
  std::string m_status;  // the last STATUS= sent
};

}  // namespace arvo::host
