// The tests' own MQTT client on libmosquitto, independent of the transport
// under test: publishes (retained too), subscribes and waits for the SUBACK,
// and keeps what arrives per topic, in order. On top, the token protocol as
// an application speaks it.
#pragma once

#include <mosquitto.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "com/protocol.h"
#include "support/broker.h"

namespace tokard::test {

using Bytes = std::vector<std::uint8_t>;
using protocol::Request;
using protocol::Response;

// An EngineState group on rt/ECU1; a valid one (every signal's status 0) blocks the ECU.
inline Bytes engine_state(bool valid) {
  const std::string d("\x05\x1a\x00\xff", 4);
  return protocol::group_frame("EngineState", {{"Speed", d, valid ? 0u : 3u}, {"Torque", d, 0}})
      .payload;
}

class MqttTestClient {
 public:
  struct Received {
    Bytes payload;
  };

  MqttTestClient(int port, std::string id, const std::string& user = "",
                 const std::string& password = "")
      : m_id(std::move(id)),
        m_mosq((mosquitto_lib_init(), mosquitto_new(m_id.c_str(), true, this)),
               &mosquitto_destroy) {
    mosquitto_connect_callback_set(m_mosq.get(), [](mosquitto*, void* self, int rc) {
      static_cast<MqttTestClient*>(self)->update([&](MqttTestClient& c) { c.m_connack = rc; });
    });
    mosquitto_subscribe_callback_set(m_mosq.get(),
                                     [](mosquitto*, void* self, int mid, int, const int* qos) {
                                       static_cast<MqttTestClient*>(self)->update(
                                           [&](MqttTestClient& c) { c.m_granted[mid] = qos[0]; });
                                     });
    mosquitto_message_callback_set(
        m_mosq.get(), [](mosquitto*, void* self, const mosquitto_message* msg) {
          const auto* bytes = static_cast<const std::uint8_t*>(msg->payload);
          static_cast<MqttTestClient*>(self)->update([&](MqttTestClient& c) {
            c.m_inbox[msg->topic].push_back({Bytes(bytes, bytes + msg->payloadlen)});
            ++c.m_count[msg->topic];
          });
        });
    if (!user.empty()) {
      mosquitto_username_pw_set(m_mosq.get(), user.c_str(), password.c_str());
    }
    mosquitto_connect(m_mosq.get(), "127.0.0.1", port, 60);
    mosquitto_loop_start(m_mosq.get());
  }
  virtual ~MqttTestClient() {
    mosquitto_disconnect(m_mosq.get());
    mosquitto_loop_stop(m_mosq.get(), false);  // no cancel: it may hold a lock
  }
  MqttTestClient(const MqttTestClient&) = delete;
  MqttTestClient& operator=(const MqttTestClient&) = delete;

  const std::string& id() const { return m_id; }
  // The broker's CONNACK code (0 accepted, 5 not authorised), -1 if none came.
  int connack() {
    return wait_for([&] { return m_connack >= 0; }, 5s) ? m_connack : -1;
  }

  // The granted QoS once the SUBACK is in, 128 when refused, -1 without one.
  int subscribe(const std::string& filter, int qos = 1) {
    int mid = 0;
    connack();
    mosquitto_subscribe(m_mosq.get(), &mid, filter.c_str(), qos);
    return wait_for([&] { return m_granted.count(mid) != 0; }, 5s) ? m_granted[mid] : -1;
  }
  bool publish(const std::string& topic, const Bytes& payload, int qos = 1, bool retain = false) {
    connack();
    return mosquitto_publish(m_mosq.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), qos, retain) == MOSQ_ERR_SUCCESS;
  }

  // Takes the oldest message kept for `topic`, waiting up to `limit` for one.
  std::optional<Received> next(const std::string& topic, milliseconds limit = 5s) {
    if (!wait_for([&] { return !m_inbox[topic].empty(); }, limit)) {
      return std::nullopt;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    Received out = std::move(m_inbox[topic].front());
    m_inbox[topic].pop_front();
    return out;
  }
  // Messages that arrived on `topic`, taken or not.
  std::size_t count(const std::string& topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_count[topic];
  }

  // One request as `client` (this connection's id by default) on `topic`,
  // listening for its answers from then on.
  bool send(Request::Action action, const std::string& rt_topic, const std::string& client = "",
            const char* topic = protocol::kRequestTopic) {
    const std::string name = client.empty() ? m_id : client;
    if (m_answered.insert(name).second) {
      subscribe(protocol::response_topic(name));
    }
    return publish(topic, protocol::request_frame(action, rt_topic, name).payload);
  }
  // For an acquire, its answer, skipping late answers for other topics.
  std::optional<Response> acquire(const std::string& rt_topic, const std::string& client = "",
                                  milliseconds limit = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    send(Request::ACQUIRE, rt_topic, client);
    protocol::Message answer;
    while (auto got = next(protocol::response_topic(client.empty() ? m_id : client),
                           std::chrono::duration_cast<milliseconds>(
                               deadline - std::chrono::steady_clock::now()))) {
      answer.payload = got->payload;
      const auto decoded = protocol::read<Response>(answer);
      if (!decoded.ok || decoded.value.request_topic() == rt_topic) {
        return decoded.ok ? std::optional<Response>(decoded.value) : std::nullopt;
      }
    }
    return std::nullopt;
  }
  // The result of an acquire's answer, 0 without one.
  int ask(const std::string& rt_topic, const std::string& client = "", milliseconds limit = 5s) {
    const auto answer = acquire(rt_topic, client, limit);
    return answer ? answer->result() : 0;
  }
  // Acquires until one is answered: tokard is connected and subscribed.
  bool wait_for_service(milliseconds limit = 15s) {
    return wait_until([&] { return acquire("rt/PROBE", "", 200ms).has_value(); }, limit);
  }

 private:
  template <typename F>
  void update(F&& change) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      change(*this);
    }
    m_changed.notify_all();
  }
  template <typename P>
  bool wait_for(P&& ready, milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::max(limit, 0ms), ready);
  }

  std::string m_id;
  std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> m_mosq;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_connack = -1;
  std::map<int, int> m_granted;
  std::map<std::string, std::deque<Received>> m_inbox;
  std::map<std::string, std::size_t> m_count;
  std::set<std::string> m_answered;
};

}  // namespace tokard::test
