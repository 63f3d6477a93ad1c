// The daemon object: brings the transport client up, parks the main thread
// while the client's delivery thread serves token requests, and brings the
// client down once a termination signal has cleared its running flag.
#pragma once

#include <atomic>
#include <memory>

#include "daemon/service_notifier.h"
#include "lapi/com/transport.h"
#include "lapi/config/configuration.h"
#include "reqhandler/request_handler.h"
#include "status/availability.h"
#include "status/status_publisher.h"
#include "status/status_readback.h"
#include "status/status_republisher.h"

namespace tokard {

class TokarDaemon;

// Handler for SIGINT and SIGTERM. The first such signal stops the daemon
// stored in instance_cell() (if any), empties the cell and restores the
// default action of both signals, so that a second one ends the process at
// once. Any other signal number is ignored.
void on_signal(int sig);

// The process-wide cell through which on_signal finds the daemon: a static
// object, there before any handler is installed, so the handler allocates
// nothing.
TokarDaemon** instance_cell();

class TokarDaemon {
 public:
  // Builds the request handler, which subscribes the request topic on
  // `client`, and sets tokard's will. Unless the configuration says
  // "token_status = off", also keeps a retained status per ECU, reads the
  // statuses of an earlier tokard back before deciding any request, and
  // publishes them again after every reconnect.
  TokarDaemon(std::unique_ptr<ecu::lapi::config::Configuration>& config,
              std::shared_ptr<ecu::lapi::com::ITransportClient>& client);
  // Only takes its connect callback back: stopping the delivery is run()'s job.
  virtual ~TokarDaemon();
  TokarDaemon(const TokarDaemon&) = delete;
  TokarDaemon& operator=(const TokarDaemon&) = delete;

  // Asks the client to connect. Always true: an unreachable broker is the
  // client's to retry, not a start-up failure.
  [[nodiscard]] bool init();

  // Starts the client's delivery and returns after on_signal has cleared the
  // running flag (within one 500 ms period), with the delivery stopped.
  // A signal that comes before the delivery has started is overridden.
  void run();

 private:
  friend void on_signal(int sig);

  std::atomic<bool> m_running;
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
  RequestHandler m_handler;
  Availability m_availability;
  ServiceNotifier m_notifier;
  std::atomic<bool> m_ready{false};
  std::shared_ptr<StatusPublisher> m_status;
  std::unique_ptr<StatusReadback> m_readback;
  std::unique_ptr<StatusRepublisher> m_republisher;
};

}  // namespace tokard
