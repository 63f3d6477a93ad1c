#pragma once

#include <mosquitto.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "support/broker.h"

namespace tokard::test {

// A client application on the test broker: sends token requests the way
// applications do and collects what arrives on its response topics.
class MqttProbe {
 public:
  explicit MqttProbe(int port) : m_mosq(nullptr, &mosquitto_destroy) {
    static const int init = mosquitto_lib_init();
    (void)init;
    m_mosq.reset(mosquitto_new(nullptr, true, this));
    if (!m_mosq) {
      throw std::runtime_error("mosquitto_new failed");
    }
    mosquitto_connect_callback_set(m_mosq.get(), &MqttProbe::on_connect);
    mosquitto_subscribe_callback_set(m_mosq.get(), &MqttProbe::on_subscribe);
    mosquitto_message_callback_set(m_mosq.get(), &MqttProbe::on_message);
    if (mosquitto_connect(m_mosq.get(), "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(m_mosq.get()) != MOSQ_ERR_SUCCESS ||
        !wait_until([this] { return m_connected.load(); })) {
      throw std::runtime_error("probe could not connect to port " + std::to_string(port));
    }
  }
  virtual ~MqttProbe() {
    mosquitto_disconnect(m_mosq.get());
    mosquitto_loop_stop(m_mosq.get(), false);
  }
  MqttProbe(const MqttProbe&) = delete;
  MqttProbe& operator=(const MqttProbe&) = delete;

  // Sends an acquire for `rt_topic` as `client` every 100 ms until the answer
  // arrives on "app/<client>/pgn/response" (then returns it) or `limit`
  // passes. Repeating covers the time tokard needs to connect and subscribe.
  std::optional<ecu::lapi::pb::PgnRequestTokenResponse> acquire(
      const std::string& client, const std::string& rt_topic,
      std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const std::string response_topic = "app/" + client + "/pgn/response";
    const int wanted = m_subscriptions.load() + 1;
    mosquitto_subscribe(m_mosq.get(), nullptr, response_topic.c_str(), 1);
    if (!wait_until([&] { return m_subscriptions.load() >= wanted; })) {
      return std::nullopt;
    }
    ecu::lapi::pb::PgnRequestTokenRequest request;
    request.set_action(ecu::lapi::pb::PgnRequestTokenRequest::ACQUIRE);
    request.set_request_topic(rt_topic);
    request.set_client_name(client);
    const auto frame =
        ecu::lapi::com::PbInternalMessageAdapter<ecu::lapi::pb::PgnRequestTokenRequest>()
            .serialize(request)
            .second.payload;

    take(response_topic);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      mosquitto_publish(m_mosq.get(), nullptr, "system/tokard/request",
                        static_cast<int>(frame.size()), frame.data(), 1, false);
      if (wait_until([&] { return received(response_topic); }, std::chrono::milliseconds(100))) {
        return decode(take(response_topic));
      }
    }
    return std::nullopt;
  }

 private:
  static void on_connect(mosquitto*, void* self, int rc) {
    static_cast<MqttProbe*>(self)->m_connected = rc == 0;
  }
  static void on_subscribe(mosquitto*, void* self, int, int, const int*) {
    ++static_cast<MqttProbe*>(self)->m_subscriptions;
  }
  static void on_message(mosquitto*, void* self, const mosquitto_message* msg) {
    auto* probe = static_cast<MqttProbe*>(self);
    const auto* bytes = static_cast<const std::uint8_t*>(msg->payload);
    std::lock_guard<std::mutex> lock(probe->m_mutex);
    probe->m_inbox[msg->topic].emplace_back(bytes, bytes + msg->payloadlen);
  }

  bool received(const std::string& topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_inbox[topic].empty();
  }

  // The first payload that arrived on `topic` (empty if none); forgets the rest.
  std::vector<std::uint8_t> take(const std::string& topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto& list = m_inbox[topic];
    std::vector<std::uint8_t> payload;
    if (!list.empty()) {
      payload = std::move(list.front());
    }
    list.clear();
    return payload;
  }

  static std::optional<ecu::lapi::pb::PgnRequestTokenResponse> decode(
      std::vector<std::uint8_t> payload) {
    ecu::lapi::com::Message msg;
    msg.payload = std::move(payload);
    auto outcome =
        ecu::lapi::com::PbInternalMessageAdapter<ecu::lapi::pb::PgnRequestTokenResponse>()
            .deserialize(msg);
    if (!outcome.ok) {
      return std::nullopt;
    }
    return outcome.value;
  }

  std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> m_mosq;
  std::atomic<bool> m_connected{false};
  std::atomic<int> m_subscriptions{0};
  std::mutex m_mutex;
  std::map<std::string, std::vector<std::vector<std::uint8_t>>> m_inbox;
};

}  // namespace tokard::test
