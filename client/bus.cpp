#include "bus.h"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "com/protocol.h"
#include "lapi/config/configuration.h"
#include "lapi/config/port.h"

namespace tokard::client {
namespace {

// Outlives open_bus: the transport keeps the callback that sets it.
struct Connected {
  std::mutex mutex;
  std::condition_variable changed;
  bool once = false;
};

}  // namespace

Bus open_bus(const BusSettings& settings, const std::vector<std::string>& topics,
             const std::shared_ptr<ecu::lapi::com::ISubscriptionObserver>& observer,
             std::chrono::milliseconds timeout, std::function<void()> on_connected) {
  if (settings.host.empty() || !ecu::lapi::config::is_port(settings.port)) {
    return {nullptr, BusError::InvalidBroker};
  }
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  config->set("host", settings.host);
  config->set("port", std::to_string(settings.port));
  config->set("client_name", settings.mqtt_client_id);
  config->set("username", settings.username);
  config->set("password", settings.password);
  auto transport = ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
  if (!transport) {
    return {nullptr, BusError::InvalidBroker};
  }
  for (const auto& topic : topics) {
    if (!transport->subscribe(topic, protocol::kQos, observer)) {
      return {nullptr, BusError::InvalidTopic};
    }
  }
  auto connected = std::make_shared<Connected>();
  transport->on_connected([connected, on_connected = std::move(on_connected)] {
    {
      std::lock_guard<std::mutex> lock(connected->mutex);
      connected->once = true;
    }
    connected->changed.notify_all();
    if (on_connected) {
      on_connected();
    }
  });
  if (!transport->connect()) {
    return {nullptr, BusError::InvalidBroker};
  }
  transport->start();
  std::unique_lock<std::mutex> lock(connected->mutex);
  if (!connected->changed.wait_for(lock, timeout, [&connected] { return connected->once; })) {
    lock.unlock();
    transport->stop();
    return {nullptr, BusError::Unreachable};
  }
  return {std::move(transport), BusError::None};
}

}  // namespace tokard::client
