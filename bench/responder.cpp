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

namespace {

constexpr const char* kRequestTopic = "system/tokard/request";
constexpr std::size_t kHeaderSize = 18;
constexpr int kLoopTimeoutMs = 100;  // as tokard's transport

std::atomic<bool> g_running{true};

void on_signal(int /*sig*/) { g_running = false; }

void put_le64(std::vector<std::uint8_t>& out, std::uint64_t value) {
  for (int i = 0; i < 8; ++i) {
    out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

std::uint64_t get_le64(const std::uint8_t* p) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) {
    value = (value << 8) | p[i];
  }
  return value;
}

// Encoded by hand so that the floor carries no protobuf runtime:
// SREHeader{fixed64 length_word = 1, fixed64 timestamp_ns = 2}, then
// PgnRequestTokenResponse{result = 1: ACQUIRED (3), request_topic = 2}.
std::vector<std::uint8_t> fixed_response() {
  const std::string topic = "rt/ECU0";
  std::vector<std::uint8_t> body{0x08, 0x03, 0x12, static_cast<std::uint8_t>(topic.size())};
  body.insert(body.end(), topic.begin(), topic.end());

  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const std::uint64_t now_ns =
      static_cast<std::uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(now.tv_nsec);
  const std::uint64_t length_word = 1 | (kHeaderSize << 16) | (std::uint64_t{body.size()} << 32);

  std::vector<std::uint8_t> frame{0x09};
  put_le64(frame, length_word);
  frame.push_back(0x11);
  put_le64(frame, now_ns);
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

bool read_varint(const std::uint8_t*& p, const std::uint8_t* end, std::uint64_t& value) {
  value = 0;
  for (int shift = 0; p < end && shift < 64; shift += 7) {
    const std::uint8_t byte = *p++;
    value |= std::uint64_t{byte & 0x7Fu} << shift;
    if ((byte & 0x80u) == 0) {
      return true;
    }
  }
  return false;
}

// client_name (field 3) of a framed PgnRequestTokenRequest; empty when the
// frame is not one or names nobody.
std::string_view client_name(const std::uint8_t* payload, std::size_t size) {
  if (size < kHeaderSize || payload[0] != 0x09) {
    return {};
  }
  const std::uint64_t body_size = get_le64(payload + 1) >> 32;
  if (body_size > size - kHeaderSize) {
    return {};
  }
  const std::uint8_t* p = payload + kHeaderSize;
  const std::uint8_t* const end = p + body_size;
  std::string_view name;
  while (p < end) {
    std::uint64_t key = 0;
    std::uint64_t value = 0;
    if (!read_varint(p, end, key)) {
      return {};
    }
    switch (key & 7u) {
      case 0:
        if (!read_varint(p, end, value)) {
          return {};
        }
        break;
      case 1:
        if (end - p < 8) {
          return {};
        }
        p += 8;
        break;
      case 2:
        if (!read_varint(p, end, value) || value > static_cast<std::uint64_t>(end - p)) {
          return {};
        }
        if ((key >> 3) == 3) {
          name = std::string_view(reinterpret_cast<const char*>(p), value);
        }
        p += value;
        break;
      case 5:
        if (end - p < 4) {
          return {};
        }
        p += 4;
        break;
      default:
        return {};
    }
  }
  return name;
}

struct Responder {
  std::vector<std::uint8_t> frame = fixed_response();
  std::string topic;  // reused for every answer
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
  const std::string_view name =
      client_name(static_cast<const std::uint8_t*>(msg->payload), static_cast<std::size_t>(msg->payloadlen));
  if (name.empty()) {
    return;
  }
  std::string& topic = responder->topic;
  topic.assign("app/");
  topic.append(name);
  topic.append("/pgn/response");
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
