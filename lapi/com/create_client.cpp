#include <charconv>

#include "lapi/com/mqtt_client.h"
#include "lapi/com/transport.h"
#include "lapi/logging/logging.h"

namespace ecu::lapi::com {
namespace {

const logging::LogModulePtr g_log = logging::module("lapi.com.mqtt");

// 0 when `text` is not a port number; `connect` then refuses the client.
int parse_port(const std::string& text) {
  int port = 0;
  const char* end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || last != end || port < 1 || port > 65535) {
    return 0;
  }
  return port;
}

}  // namespace

std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& config,
                                                TransportType type) {
  if (type != INTERNAL_MQTT || !config) {
    return nullptr;
  }
  const std::string& port_text = config->get("port");
  const int port = parse_port(port_text);
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
