// The floor for a broker-mediated request/response: answers every message on
// "system/tokard/request" that names a client with one fixed response frame
// (ACQUIRED) on "app/<client>/pgn/response", QoS 1, and does nothing else.
// Shaped like tokard: one network thread runs libmosquitto's loop, the main
// thread sleeps until SIGINT or SIGTERM.
//
//   responder [-h host] [-p port] [-i client_id]
//
// Prints "responder: subscribed" once the broker has acknowledged the
// subscription.
#include <mosquitto.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "com/protocol.h"

namespace {

using tokard::protocol::kRequestTopic;
constexpr int kLoopTimeoutMs = 100;  // as tokard's transport

std::atomic<bool> g_running{true};

void on_signal(int /*sig*/) { g_running = false; }

// What tokard answers every acquire with, built once.
std::vector<std::uint8_t> fixed_response() {
  const std::string topic = std::string(tokard::protocol::kRtPrefix) + "ECU0";
  return tokard::protocol::response_frame(tokard::protocol::Response::ACQUIRED, topic).payload;
}

// The client a framed request names; empty when the frame is not one or
// names nobody.
std::string client_name(const std::uint8_t* payload, std::size_t size) {
  tokard::protocol::Message msg;
  msg.payload.assign(payload, payload + size);
  const auto request = tokard::protocol::read<tokard::protocol::Request>(msg);
  return request.ok ? request.value.client_name() : std::string();
}

struct Responder {
  std::vector<std::uint8_t> frame = fixed_response();
};

void on_connect(mosquitto* handle, void* /*self*/, int rc) {
  if (rc != 0) {
    std::fprintf(stderr, "responder: connection refused: %s\n", mosquitto_connack_string(rc));
    return;
  }
  mosquitto_subscribe(handle, nullptr, kRequestTopic, 1);
}

void on_subscribe(mosquitto* /*handle*/, void* /*self*/, int /*mid*/, int /*count*/,
                  const int* /*granted*/) {
  std::printf("responder: subscribed\n");
  std::fflush(stdout);
}

void on_message(mosquitto* handle, void* self, const mosquitto_message* msg) {
  auto* responder = static_cast<Responder*>(self);
  const std::string name = client_name(static_cast<const std::uint8_t*>(msg->payload),
                                       static_cast<std::size_t>(msg->payloadlen));
  if (name.empty()) {
    return;
  }
  const std::string topic = tokard::protocol::response_topic(name);
  mosquitto_publish(handle, nullptr, topic.c_str(), static_cast<int>(responder->frame.size()),
                    responder->frame.data(), 1, false);
}

void network_loop(mosquitto* handle) {
  while (g_running) {
    if (mosquitto_loop(handle, kLoopTimeoutMs, 1) != MOSQ_ERR_SUCCESS && g_running) {
      usleep(100000);
      mosquitto_reconnect(handle);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string host = "127.0.0.1";
  int port = 1883;
  std::string id = "tokard-responder";
  int opt = 0;
  while ((opt = getopt(argc, argv, "h:p:i:")) != -1) {
    switch (opt) {
      case 'h':
        host = optarg;
        break;
      case 'p':
        port = std::atoi(optarg);
        break;
      case 'i':
        id = optarg;
        break;
      default:
        std::fprintf(stderr, "usage: %s [-h host] [-p port] [-i client_id]\n", argv[0]);
        return 2;
    }
  }

  mosquitto_lib_init();
  Responder responder;
  mosquitto* handle = mosquitto_new(id.c_str(), true, &responder);
  if (handle == nullptr) {
    std::perror("responder: mosquitto_new");
    return 1;
  }
  mosquitto_threaded_set(handle, true);
  mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_connect_callback_set(handle, on_connect);
  mosquitto_subscribe_callback_set(handle, on_subscribe);
  mosquitto_message_callback_set(handle, on_message);

  const int rc = mosquitto_connect(handle, host.c_str(), port, 60);
  if (rc != MOSQ_ERR_SUCCESS) {
    std::fprintf(stderr, "responder: cannot connect to %s:%d: %s\n", host.c_str(), port,
                 mosquitto_strerror(rc));
    return 1;
  }
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  std::thread network(network_loop, handle);
  const timespec period{0, 500'000'000};
  while (g_running) {
    nanosleep(&period, nullptr);
  }
  network.join();
  mosquitto_disconnect(handle);
  mosquitto_loop_write(handle, 1);
  mosquitto_destroy(handle);
  mosquitto_lib_cleanup();
  return 0;
}
