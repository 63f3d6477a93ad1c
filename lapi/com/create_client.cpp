#include "lapi/com/mqtt_client.h"
#include "lapi/com/transport.h"
#include "lapi/config/port.h"
#include "lapi/logging/logging.h"

namespace ecu::lapi::com {
namespace {

const logging::LogModulePtr g_log = logging::module("lapi.com.mqtt");

}  // namespace

std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& config,
                                                TransportType type) {
  if (type != INTERNAL_MQTT || !config) {
    return nullptr;
  }
  const std::string& port_text = config->get("port");
  // 0 when it is not a port number; `connect` then refuses the client.
  const int port = config::parse_port(port_text);
  if (port == 0) {
    LAPI_LOG(WARNING, g_log) << "broker port '" << port_text << "' is not a port number";
  }
  MqttOptions options;
  options.username = config->get("username");
  options.password = config->get("password");
  return std::make_shared<MqttClient>(config->get("host"), port, config->get("client_name"),
                                      options);
}

}  // namespace ecu::lapi::com
