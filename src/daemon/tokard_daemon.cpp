#include "daemon/tokard_daemon.h"

#include <signal.h>
#include <time.h>

#include "lapi/logging/logging.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.daemon");

// Zero-initialised before any code runs: the handler only loads and stores.
TokarDaemon* g_instance = nullptr;

// Clearing the flag from a signal handler is only safe when it takes no lock.
static_assert(std::atomic<bool>::is_always_lock_free);

// "token_status": on unless "off"; anything else is taken for on.
bool token_status_wanted(const std::unique_ptr<ecu::lapi::config::Configuration>& config) {
  const std::string value = config ? config->get("token_status") : std::string();
  if (value == "off") {
    return false;
  }
  if (!value.empty() && value != "on") {
    LAPI_LOG(WARNING, ecu::lapi::logging::module("tokard.status"))
        << "token_status '" << value << "' is neither on nor off; taking on";
  }
  return true;
}

}  // namespace

TokarDaemon** instance_cell() { return &g_instance; }

void on_signal(int sig) {
  if (sig != SIGINT && sig != SIGTERM) {
    return;
  }
  TokarDaemon** cell = instance_cell();
  if (*cell != nullptr) {
    (*cell)->m_running.store(false);
  }
  *cell = nullptr;
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
}

TokarDaemon::TokarDaemon(std::unique_ptr<ecu::lapi::config::Configuration>& config,
                         std::shared_ptr<ecu::lapi::com::ITransportClient>& client)
    : m_running(false), m_client(client), m_handler(client), m_availability(client) {
  if (token_status_wanted(config)) {
    const std::string boot_id = read_boot_id();
    if (boot_id.empty()) {
      LAPI_LOG(WARNING, ecu::lapi::logging::module("tokard.status"))
          << "No boot id readable in /proc/sys/kernel/random: after a restart every token "
             "comes back free";
    }
    m_status = std::make_shared<StatusPublisher>(client, boot_id);
    m_handler.ecu_container().set_listener(m_status);
    m_readback =
        std::make_unique<StatusReadback>(client, m_handler, m_status, StatusReadback::Clock::now());
    m_republisher = std::make_unique<StatusRepublisher>(client, m_status);
  }
  // Runs once the broker has acknowledged every subscription, the request
  // topic's included: from then on requests reach tokard.
  m_client->on_connected([this] {
    m_availability.online();
    if (m_readback) {
      m_readback->connected();
      m_republisher->connected();
    }
    if (!m_ready.exchange(true)) {
      m_notifier.ready();
    }
  });
}

TokarDaemon::~TokarDaemon() { m_client->on_connected(nullptr); }

bool TokarDaemon::init() {
  LAPI_LOG(DEBUG, g_log) << "Initializing...";
  (void)m_client->connect();
  return true;
}

void TokarDaemon::run() {
  LAPI_LOG(DEBUG, g_log) << "Starting...";
  m_client->start();
  m_running.store(true);
  const timespec period{0, 500'000'000};
  while (m_running.load()) {
    // An early wake-up by a signal just starts the next pass.
    nanosleep(&period, nullptr);
    if (m_client->is_running()) {
      m_notifier.watchdog();
    }
    if (m_readback) {
      m_readback->remind();
      m_republisher->remind();
    }
  }
  m_notifier.stopping();
  m_availability.offline();
  m_client->stop();
  LAPI_LOG(DEBUG, g_log) << "... stopped!";
}

}  // namespace tokard
