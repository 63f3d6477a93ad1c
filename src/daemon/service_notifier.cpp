#include "daemon/service_notifier.h"

#if TOKARD_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include <cstdint>

namespace tokard {

namespace {

// Failures are not reported: a service manager that cannot be told is one
// that is not listening, and tokard serves the same either way.
void notify([[maybe_unused]] const char* state) {
#if TOKARD_SYSTEMD
  sd_notify(0, state);
#endif
}

}  // namespace

ServiceNotifier::ServiceNotifier() {
#if TOKARD_SYSTEMD
  std::uint64_t usec = 0;
  if (sd_watchdog_enabled(0, &usec) > 0) {
    m_watchdog_timeout = std::chrono::microseconds(usec);
  }
#endif
}

void ServiceNotifier::ready() { notify("READY=1"); }

void ServiceNotifier::watchdog() {
  if (m_watchdog_timeout.count() > 0) {
    notify("WATCHDOG=1");
  }
}

void ServiceNotifier::stopping() { notify("STOPPING=1"); }

std::chrono::microseconds ServiceNotifier::watchdog_period() const {
  return m_watchdog_timeout / 2;
}

}  // namespace tokard
