// The MQTT 3.1.1 transport client on libmosquitto.
//
// One thread of its own (started by `start`) connects, reconnects with
// back-off, runs libmosquitto's network loop and calls the observers.
// libmosquitto runs in threaded mode, so `publish`, `subscribe` and
// `unsubscribe` only queue packets and may be called from any thread,
// observers included; the loop thread writes them out.
//
// Choices the interface leaves open:
// - Subscribing an observer to a topic it already observes changes nothing;
//   one `unsubscribe` removes the pair.
// - An observer whose exact and wildcard subscriptions both match a topic
//   gets each message once.
// - While there is no connection, QoS 0 publishes are refused (logged,
//   false) and QoS 1 and 2 publishes are kept by libmosquitto and sent after
//   the next connect.
// - Nothing connects before `start`: `connect` records the wish and the loop
//   thread acts on it.
// - `disconnect` takes effect on the loop thread; without one running, at
//   the next `start` or in the destructor.
// - Connects are non-blocking: `stop` waits for a running delivery and for
//   at most one pass of the network loop (kLoopTimeout), whatever state the
//   connection is in. Only the name lookup of a host name blocks.
// - The destructor, with the session up, first waits up to kFlushTimeout
//   for the acknowledgements of what was sent (QoS 1 and 2 publishes,
//   UNSUBSCRIBEs, queued after `stop` too), then sends a DISCONNECT: the
//   broker processes every packet and sees a clean goodbye.
// - The last reference to the client must not be dropped inside a delivery.
#pragma once

#include <mosquitto.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "lapi/com/transport.h"

namespace ecu::lapi::com {

struct MqttOptions {
  // The wait before the first retry, doubled after every failed attempt up
  // to `longest_retry`; a successful connect starts again from the first.
  std::chrono::milliseconds first_retry{1000};
  std::chrono::milliseconds longest_retry{30000};
  int keepalive_s = 60;
  // The broker login; without a username the client connects anonymously.
  std::string username;
  std::string password;
};

class MqttClient : public ITransportClient {
 public:
  // Bounds how long the loop thread takes to notice `stop`.
  static constexpr std::chrono::milliseconds kLoopTimeout{100};
  // Bounds the goodbye in the destructor. With a daemon loop period of
  // 500 ms and one kLoopTimeout for `stop`, a SIGTERM still ends the process
  // within 0.8 s when the broker stops answering.
  static constexpr std::chrono::milliseconds kFlushTimeout{200};

  MqttClient(std::string host, int port, std::string client_id, MqttOptions options = {});
  ~MqttClient() override;
  MqttClient(const MqttClient&) = delete;
  MqttClient& operator=(const MqttClient&) = delete;

  // False, with an ERROR log, when the host is empty, the port is outside
  // 1..65535 or libmosquitto could not create the client.
  bool connect() override;
  void disconnect() override;
  bool is_connected() const override;

  bool publish(const std::string& topic, const Message& msg) override;
  std::size_t subscription_count() const override;

  // False for an empty observer, a QoS outside 0..2 or an invalid topic filter.
  bool subscribe(const std::string& topic, int qos,
                 std::shared_ptr<ISubscriptionObserver> observer) override;
  // False when the pair was not subscribed.
  bool unsubscribe(const std::string& topic,
                   std::shared_ptr<ISubscriptionObserver> observer) override;

  const std::string& client_id() const override;
  bool is_running() const override;

  void start() override;
  void stop() override;

  bool set_will(const std::string& topic, const Message& msg) override;
  void on_connected(std::function<void()> callback) override;

 private:
  using ObserverPtr = std::shared_ptr<ISubscriptionObserver>;
  // The observers of one topic, in the order they subscribed. Nearly every
  // topic has exactly one; keeping it inline saves an allocation per topic
  // (640 KiB once 10,000 ECUs are subscribed).
  class ObserverList {
   public:
    bool empty() const { return !m_first; }
    bool contains(const ObserverPtr& observer) const {
      return (m_first && m_first == observer) ||
             (m_more && std::find(m_more->begin(), m_more->end(), observer) != m_more->end());
    }
    void add(ObserverPtr observer) {
      if (!m_first) {
        m_first = std::move(observer);
        return;
      }
      if (!m_more) {
        m_more = std::make_unique<std::vector<ObserverPtr>>();
      }
      m_more->push_back(std::move(observer));
    }
    // The reference given up; empty when `observer` was not in the list.
    ObserverPtr remove(const ObserverPtr& observer) {
      ObserverPtr removed;
      if (m_first && m_first == observer) {
        removed = std::move(m_first);
        if (m_more) {
          m_first = std::move(m_more->front());
          m_more->erase(m_more->begin());
        }
      } else if (m_more) {
        const auto pos = std::find(m_more->begin(), m_more->end(), observer);
        if (pos != m_more->end()) {
          removed = std::move(*pos);
          m_more->erase(pos);
        }
      }
      if (m_more && m_more->empty()) {
        m_more.reset();
      }
      return removed;
    }
    template <typename F>
    void for_each(F&& visit) const {
      if (m_first) {
        visit(m_first);
      }
      if (m_more) {
        for (const auto& observer : *m_more) {
          visit(observer);
        }
      }
    }

   private:
    ObserverPtr m_first;
    std::unique_ptr<std::vector<ObserverPtr>> m_more;  // only while there are two or more
  };
  struct Topic {
    int qos = 0;  // the highest QoS any of its observers asked for
    ObserverList observers;
  };

  static void on_connect(mosquitto* handle, void* self, int rc) noexcept;
  static void on_disconnect(mosquitto* handle, void* self, int rc) noexcept;
  static void on_message(mosquitto* handle, void* self, const mosquitto_message* msg) noexcept;
  static void on_publish(mosquitto* handle, void* self, int mid) noexcept;
  static void on_subscribe(mosquitto* handle, void* self, int mid, int count,
                           const int* granted) noexcept;
  static void on_unsubscribe(mosquitto* handle, void* self, int mid) noexcept;

  void run();
  // False after a failed attempt, which has then waited out its back-off.
  bool attempt_connect();
  void after_loop_error(int rc);
  void retry_later(const std::string& reason);
  // The address of the broker to try next, resolving its name at the start
  // of a round; the name itself when it does not resolve.
  const std::string& next_address();
  // Sleeps up to `limit`; `stop`, `connect` and `disconnect` cut it short.
  void pause(std::chrono::milliseconds limit);
  void wake();

  void connected(int rc);
  void disconnected(int rc);
  void subscribed(int mid);
  // Runs the connect callback once every SUBSCRIBE of this connect is answered.
  void ready_if_subscribed();
  // Waits for outstanding acknowledgements, then says goodbye; destructor only.
  void flush_and_disconnect();
  void deliver(const mosquitto_message& raw);
  // Fills `found` with the observers of `topic`.
  void observers_of(const std::string& topic, std::vector<ObserverPtr>& found) const;
  void send_subscribe(const std::string& topic, int qos);
  // Sends every topic again; the caller holds the registry lock.
  void resubscribe_all();
  // Empty on the loop thread, else a lock on m_socket_mutex.
  std::unique_lock<std::mutex> hold_off_connect();
  std::string where() const;

  // Packet ids sent and not yet acknowledged. An acknowledgement may come
  // before the sender has recorded the id; it then leaves a -1 that the
  // sender's +1 cancels.
  class Unacked {
   public:
    void sent(int mid) { change(mid, 1); }
    void acknowledged(int mid) { change(mid, -1); }
    bool empty() const {
      std::lock_guard<std::mutex> lock(m_mutex);
      return std::none_of(m_ids.begin(), m_ids.end(), [](const auto& id) { return id.second > 0; });
    }
    void clear() {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_ids.clear();
    }

   private:
    void change(int mid, int by) {
      std::lock_guard<std::mutex> lock(m_mutex);
      if ((m_ids[mid] += by) == 0) {
        m_ids.erase(mid);
      }
    }
    mutable std::mutex m_mutex;
    std::unordered_map<int, int> m_ids;
  };

  const std::string m_host;
  const int m_port;
  const std::string m_client_id;
  const MqttOptions m_options;
  std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> m_handle;

  // Observer registry: every topic filter, and the wildcard ones again in a
  // short list that each received message is matched against.
  mutable std::mutex m_registry_mutex;
  std::unordered_map<std::string, Topic> m_topics;
  std::vector<std::string> m_wildcards;

  // Held by the loop thread while mosquitto_connect_async opens a socket and queues
  // the CONNECT, and by other threads while they queue a packet: libmosquitto
  // would accept one in between and send it before the CONNECT. Always the
  // outermost lock.
  std::mutex m_socket_mutex;

  std::function<void()> m_on_connected;
  Unacked m_unacked_publishes;           // kept by libmosquitto across reconnects
  Unacked m_unacked_unsubscribes;        // lost with the connection
  std::atomic<bool> m_connected{false};  // CONNACK accepted, not lost since
  std::atomic<bool> m_want_connection{false};
  std::atomic<bool> m_stop_requested{false};
  std::atomic<bool> m_running{false};

  std::mutex m_wake_mutex;
  std::condition_variable m_wake_cv;
  bool m_woken = false;

  std::mutex m_lifecycle_mutex;  // serialises start and stop
  std::thread m_thread;
  std::atomic<std::thread::id> m_loop_thread{};

  // Touched by the loop thread only (and by the destructor after the join).
  struct Delivery {
    Message msg;
    std::string topic;
    std::vector<ObserverPtr> observers;
  };
  Delivery m_delivery;
  // The broker's addresses of the current round of attempts, and the one
  // being tried: libmosquitto's non-blocking connect tries only the first
  // address of a name, which for "localhost" may be ::1 while the broker
  // listens on 127.0.0.1 only.
  std::vector<std::string> m_addresses;
  std::size_t m_next_address = 0;
  std::chrono::milliseconds m_retry_delay;
  int m_failed_attempts = 0;
  bool m_session_up = false;  // CONNACK accepted on the current socket
  std::string m_refusal;      // why the broker refused the current attempt
  bool m_disconnect_sent = false;
  std::vector<int> m_awaited_subacks;                 // SUBSCRIBEs of the current connect
  bool m_ready_pending = false;                       // connect callback not run yet
  std::chrono::steady_clock::time_point m_lost_at{};  // set while a lost connection is down
  bool m_closing = false;  // the destructor drives the network; no more deliveries
};

}  // namespace ecu::lapi::com
