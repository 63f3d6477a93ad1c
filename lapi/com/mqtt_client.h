// The MQTT 3.1.1 transport client on libmosquitto.
//
// One thread of its own (started by `start`) connects, reconnects with
// back-off, runs libmosquitto's network loop and calls the observers. It
// reaches libmosquitto through IMosquitto, keeps its observers in an
// ObserverRegistry and leaves when and where to connect to ConnectPolicy.
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

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lapi/com/connect_policy.h"
#include "lapi/com/inbox.h"
#include "lapi/com/mosquitto_api.h"
#include "lapi/com/observer_registry.h"
#include "lapi/com/transport.h"
#include "lapi/com/unacked.h"

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

class MqttClient : public ITransportClient, private IMosquittoEvents {
 public:
  // Bounds how long the loop thread takes to notice `stop`.
  static constexpr std::chrono::milliseconds kLoopTimeout{100};
  // Bounds the goodbye in the destructor, so that a SIGTERM still ends the
  // process promptly when the broker stops answering.
  static constexpr std::chrono::milliseconds kFlushTimeout{200};

  // `lib` is libmosquitto unless a test stands in for it.
  MqttClient(std::string host, int port, std::string client_id, MqttOptions options = {},
             std::unique_ptr<IMosquitto> lib = make_mosquitto());
  ~MqttClient() override;
  MqttClient(const MqttClient&) = delete;
  MqttClient& operator=(const MqttClient&) = delete;

  // False, with an ERROR log, when the host is empty, the port is outside
  // 1..65535 or libmosquitto could not create the client.
  [[nodiscard]] bool connect() override;
  void disconnect() override;
  bool is_connected() const override;

  [[nodiscard]] bool publish(const std::string& topic, const Message& msg) override;
  std::size_t subscription_count() const override;

  // False for an empty observer, a QoS outside 0..2 or an invalid topic filter.
  [[nodiscard]] bool subscribe(const std::string& topic, int qos,
                               std::shared_ptr<ISubscriptionObserver> observer) override;
  // False when the pair was not subscribed.
  [[nodiscard]] bool unsubscribe(const std::string& topic,
                                 std::shared_ptr<ISubscriptionObserver> observer) override;

  const std::string& client_id() const override;
  bool is_running() const override;

  void start() override;
  void stop() override;

  [[nodiscard]] bool set_will(const std::string& topic, const Message& msg) override;
  void on_connected(std::function<void()> callback) override;

 private:
  using ObserverPtr = ObserverRegistry::ObserverPtr;

  // libmosquitto's callbacks, on the loop thread (or the destructor's).
  void on_connect(int rc) override;
  void on_disconnect(int rc) override;
  void on_message(const mosquitto_message& raw) override;
  // Hands what the last pass of the network loop received to the observers.
  void deliver_received();
  void deliver(const std::string& topic, const Message& msg);
  void on_publish(int mid) override { m_unacked_publishes.acknowledged(mid); }
  void on_subscribe(int mid) override;
  void on_unsubscribe(int mid) override { m_unacked_unsubscribes.acknowledged(mid); }

  void run();
  // False after a failed attempt, which has then waited out its back-off.
  bool attempt_connect();
  void after_loop_error(int rc);
  // Sleeps `delay` when there is one; `stop`, `connect` and `disconnect` cut it short.
  void pause(ConnectPolicy::Delay delay);
  void wake();

  // Runs the connect callback once every SUBSCRIBE of this connect is answered.
  void ready_if_subscribed();
  // Waits for outstanding acknowledgements, then says goodbye; destructor only.
  void flush_and_disconnect();
  void send_subscribe(const std::string& topic, int qos);
  // Sends every topic again; the caller holds the registry lock.
  void resubscribe_all();
  // Empty on the loop thread, else a lock on m_socket_mutex.
  std::unique_lock<std::mutex> hold_off_connect();

  const std::string m_client_id;
  const MqttOptions m_options;
  const std::unique_ptr<IMosquitto> m_lib;
  bool m_created = false;  // libmosquitto made the handle
  ConnectPolicy m_policy;  // the loop thread's

  mutable std::mutex m_registry_mutex;
  ObserverRegistry m_registry;

  // Held by the loop thread while connect_async opens a socket and queues
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
  Inbox m_inbox;
  std::vector<ObserverPtr> m_observers;  // of the message being delivered
  bool m_disconnect_sent = false;
  std::vector<int> m_awaited_subacks;  // SUBSCRIBEs of the current connect
  bool m_ready_pending = false;        // connect callback not run yet
  bool m_closing = false;              // the destructor drives the network; no more deliveries
};

}  // namespace ecu::lapi::com
