#include "daemon/tokard_daemon.h"

#include <signal.h>
#include <time.h>

#include "lapi/logging/logging.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.daemon");

// Zero-initialised before any code runs, so the signal handler can test it.
TokarDaemon** g_instance_cell = nullptr;

// Clearing the flag from a signal handler is only safe when it takes no lock.
static_assert(std::atomic<bool>::is_always_lock_free);

}  // namespace

TokarDaemon** instance_cell() {
  if (g_instance_cell == nullptr) {
    g_instance_cell = new TokarDaemon*(nullptr);
  }
  return g_instance_cell;
}

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

TokarDaemon::TokarDaemon(std::unique_ptr<ecu::lapi::config::Configuration>& /*config*/,
                         std::shared_ptr<ecu::lapi::com::ITransportClient>& client)
    : m_running(false), m_client(client), m_handler(client) {}

TokarDaemon::~TokarDaemon() = default;

bool TokarDaemon::init() {
  LAPI_LOG(DEBUG, g_log) << "Initializing...";
  m_client->connect();
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
  }
  m_client->stop();
  LAPI_LOG(DEBUG, g_log) << "... stopped!";
}

}  // namespace tokard
