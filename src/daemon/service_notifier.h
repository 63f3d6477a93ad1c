// Tells the service manager when tokard is ready, that it is still alive, and
// that it is stopping (the sd_notify protocol of a Type=notify unit).
// Outside such a unit (no NOTIFY_SOCKET), and in a build without systemd
// support (TOKARD_SYSTEMD off), every call does nothing.
#pragma once

#include <chrono>

namespace tokard {

class ServiceNotifier {
 public:
  // Reads the watchdog settings (WATCHDOG_USEC, WATCHDOG_PID) once.
  ServiceNotifier();
  virtual ~ServiceNotifier() = default;

  // Once, when requests can be served.
  virtual void ready();
  // Proves liveness; sends only while the service manager watches the process.
  virtual void watchdog();
  // Once, when a termination signal has come.
  virtual void stopping();

  // How often watchdog() must be called: half the manager's time-out, so that
  // one late pass is not fatal. Zero when no watchdog is set.
  [[nodiscard]] std::chrono::microseconds watchdog_period() const;

 private:
  std::chrono::microseconds m_watchdog_timeout{0};
};

}  // namespace tokard
