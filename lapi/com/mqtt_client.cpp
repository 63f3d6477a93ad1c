#include "lapi/com/mqtt_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "lapi/com/topic_check.h"
#include "lapi/config/port.h"
#include "lapi/logging/logging.h"
#include "lapi/time/datetime.h"

namespace ecu::lapi::com {
namespace {

const logging::LogModulePtr g_log = logging::module("lapi.com.mqtt");

// The largest payload MQTT can carry (MQTT 3.1.1, 2.2.3: remaining length).
constexpr std::size_t kMaxPayload = 268435455;

}  // namespace

MqttClient::MqttClient(std::string host, int port, std::string client_id, MqttOptions options,
                       std::unique_ptr<IMosquitto> lib)
    : m_client_id(std::move(client_id)),
      m_options(std::move(options)),
      m_lib(std::move(lib)),
      m_policy(*m_lib, std::move(host), port, m_options.first_retry, m_options.longest_retry) {
  m_created = m_lib->create(m_client_id, *this);
  if (!m_created) {
    LAPI_LOG(ERROR, g_log) << "cannot create MQTT client '" << m_client_id
                           << "': " << std::generic_category().message(errno);
    return;
  }
  m_lib->threaded_set(true);
  m_lib->int_option(MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  // Without it an acknowledgement and the next publish wait ~40 ms for the
  // peer's delayed ACK.
  m_lib->int_option(MOSQ_OPT_TCP_NODELAY, 1);
  if (!m_options.username.empty()) {
    const int rc =
        m_lib->username_pw_set(m_options.username.c_str(),
                               m_options.password.empty() ? nullptr : m_options.password.c_str());
    if (rc != MOSQ_ERR_SUCCESS) {
      LAPI_LOG(ERROR, g_log) << "cannot set the broker login of '" << m_client_id
                             << "': " << error_text(rc);
    }
  }
}

MqttClient::~MqttClient() {
  stop();
  flush_and_disconnect();
}

void MqttClient::flush_and_disconnect() {
  // Without a CONNACK there is no session to close: destroying the handle
  // just drops the socket, also one whose handshake never completed.
  if (!m_created || m_lib->socket() < 0 || !m_connected) {
    return;
  }
  m_closing = true;
  const auto deadline = std::chrono::steady_clock::now() + kFlushTimeout;
  const auto left_ms = [deadline] {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, kLoopTimeout.count()));
  };
  // Closing with an acknowledgement unread makes the kernel reset the
  // connection, and the broker drops what it has not processed yet.
  while (m_lib->socket() >= 0 && left_ms() > 0 &&
         (!m_unacked_unsubscribes.empty() || !m_unacked_publishes.empty())) {
    m_lib->loop(left_ms());
  }
  if (m_lib->socket() < 0) {
    return;
  }
  // A clean DISCONNECT, so the broker does not log a dropped client;
  // libmosquitto closes the socket once it is written.
  m_lib->disconnect();
  while (m_lib->socket() >= 0 && left_ms() > 0 && m_lib->loop(left_ms()) == MOSQ_ERR_SUCCESS) {
  }
  if (m_lib->socket() >= 0) {
    m_lib->loop_write();
  }
}

bool MqttClient::connect() {
  if (!m_created || m_policy.host().empty() || !config::is_port(m_policy.port())) {
    LAPI_LOG(ERROR, g_log) << "cannot connect to " << m_policy.where()
                           << ": unusable broker address";
    return false;
  }
  m_want_connection = true;
  wake();
  return true;
}

void MqttClient::disconnect() {
  m_want_connection = false;
  wake();
}

bool MqttClient::is_connected() const { return m_connected; }

bool MqttClient::publish(const std::string& topic, const Message& msg) {
  const char* failure = nullptr;
  int rc = MOSQ_ERR_SUCCESS;
  if (!m_created) {
    failure = "no MQTT client";
  } else if (msg.payload.size() > kMaxPayload) {
    failure = is_topic_name(topic) ? "payload too large" : "not a valid topic name";
  } else if (topic.empty() || topic.find('\0') != std::string::npos) {
    failure = "not a valid topic name";
  } else {
    // libmosquitto checks the name (UTF-8, no wildcards) before it queues
    // anything, so it is checked here only once a publish failed.
    int mid = 0;
    {
      const auto no_connect = hold_off_connect();
      // While a connect is under way libmosquitto would queue QoS 0 as well.
      rc = msg.qos == 0 && !m_connected
               ? MOSQ_ERR_NO_CONN
               : m_lib->publish(&mid, topic, msg.payload, msg.qos, msg.extra_flag);
    }
    // libmosquitto keeps a QoS 1 or 2 message without a connection too, and
    // sends it after the next connect.
    const bool queued = rc == MOSQ_ERR_SUCCESS || (rc == MOSQ_ERR_NO_CONN && msg.qos > 0);
    if (queued && msg.qos > 0) {
      m_unacked_publishes.sent(mid);
    }
    if (rc == MOSQ_ERR_SUCCESS) {
      return true;
    }
    if (queued) {
      LAPI_LOG(DEBUG, g_log) << "publish on '" << topic << "' held until the broker is back";
      return true;
    }
    if ((rc == MOSQ_ERR_INVAL || rc == MOSQ_ERR_MALFORMED_UTF8) && !is_topic_name(topic)) {
      failure = "not a valid topic name";
    }
  }
  LAPI_LOG(WARNING, g_log) << "publish on '" << topic
                           << "' dropped: " << (failure != nullptr ? failure : error_text(rc));
  return false;
}

std::size_t MqttClient::subscription_count() const {
  std::lock_guard<std::mutex> lock(m_registry_mutex);
  return m_registry.size();
}

bool MqttClient::subscribe(const std::string& topic, int qos, ObserverPtr observer) {
  if (!observer || qos < 0 || qos > 2 || !is_topic_filter(topic)) {
    LAPI_LOG(WARNING, g_log) << "subscription to '" << topic << "' with QoS " << qos
                             << " refused: invalid topic filter, QoS or observer";
    return false;
  }
  const auto no_connect = hold_off_connect();
  std::lock_guard<std::mutex> lock(m_registry_mutex);
  const int send_qos = m_registry.add(topic, qos, std::move(observer));
  // Before the CONNACK the connect callback sends every topic; sending
  // earlier could put a SUBSCRIBE ahead of the CONNECT.
  if (send_qos != ObserverRegistry::kNothingToSend && m_connected) {
    send_subscribe(topic, send_qos);
  }
  return true;
}

bool MqttClient::unsubscribe(const std::string& topic, ObserverPtr observer) {
  ObserverRegistry::Removed removed;  // dropped after the lock, in case it was the last reference
  const auto no_connect = hold_off_connect();
  std::lock_guard<std::mutex> lock(m_registry_mutex);
  removed = m_registry.remove(topic, observer);
  if (!removed.observer) {
    return false;
  }
  if (!removed.last || !m_connected) {
    return true;
  }
  int mid = 0;
  const int rc = m_lib->unsubscribe(&mid, topic);
  if (rc == MOSQ_ERR_SUCCESS) {
    m_unacked_unsubscribes.sent(mid);
  } else if (rc != MOSQ_ERR_NO_CONN) {
    LAPI_LOG(WARNING, g_log) << "unsubscribe from '" << topic << "' not sent: " << error_text(rc);
  }
  return true;
}

const std::string& MqttClient::client_id() const { return m_client_id; }

bool MqttClient::is_running() const { return m_running; }

void MqttClient::start() {
  std::lock_guard<std::mutex> lock(m_lifecycle_mutex);
  if (m_thread.joinable() || !m_created) {
    return;
  }
  m_stop_requested = false;
  m_running = true;
  m_thread = std::thread([this] { run(); });
}

void MqttClient::stop() {
  if (m_loop_thread.load() == std::this_thread::get_id()) {
    // Joining itself would throw; the loop ends after this delivery instead.
    LAPI_LOG(ERROR, g_log) << "stop called from inside a delivery";
    m_stop_requested = true;
    return;
  }
  std::lock_guard<std::mutex> lock(m_lifecycle_mutex);
  if (!m_thread.joinable()) {
    return;
  }
  {
    std::lock_guard<std::mutex> wake_lock(m_wake_mutex);
    m_stop_requested = true;
  }
  m_wake_cv.notify_all();
  m_thread.join();
  m_running = false;
}

bool MqttClient::set_will(const std::string& topic, const Message& msg) {
  int rc = MOSQ_ERR_INVAL;
  if (m_created && is_topic_name(topic) && msg.payload.size() <= kMaxPayload) {
    const auto no_connect = hold_off_connect();
    rc = m_lib->will_set(topic, msg.payload, msg.qos, msg.extra_flag);
  }
  if (rc != MOSQ_ERR_SUCCESS) {
    LAPI_LOG(WARNING, g_log) << "will on '" << topic << "' refused: " << error_text(rc);
  }
  return rc == MOSQ_ERR_SUCCESS;
}

void MqttClient::on_connected(std::function<void()> callback) {
  m_on_connected = std::move(callback);
}

void MqttClient::run() {
  m_loop_thread = std::this_thread::get_id();
  const int timeout_ms = static_cast<int>(kLoopTimeout.count());
  while (!m_stop_requested) {
    const bool open = m_lib->socket() >= 0;
    if (!m_want_connection) {
      m_policy.not_wanted();
      if (!open) {
        pause(std::chrono::hours(1));
        continue;
      }
      if (!m_disconnect_sent) {
        m_lib->disconnect();
        m_disconnect_sent = true;
      }
      // Writes the DISCONNECT; libmosquitto then closes the socket.
      const int rc = m_lib->loop(timeout_ms);
      deliver_received();
      if (rc != MOSQ_ERR_SUCCESS && m_lib->socket() >= 0) {
        pause(kLoopTimeout);
      }
      continue;
    }
    if (!open && !attempt_connect()) {
      continue;
    }
    const int rc = m_lib->loop(timeout_ms);
    deliver_received();
    if (rc != MOSQ_ERR_SUCCESS) {
      after_loop_error(rc);
    }
  }
  m_loop_thread = std::thread::id();
}

bool MqttClient::attempt_connect() {
  m_policy.attempt_started();
  m_disconnect_sent = false;
  std::string failure;
  {
    std::lock_guard<std::mutex> lock(m_socket_mutex);
    // Non-blocking: the TCP handshake completes in the network loop, which
    // keeps noticing `stop` even when the broker never answers.
    const int rc =
        m_lib->connect_async(m_policy.next_address(), m_policy.port(), m_options.keepalive_s);
    if (rc == MOSQ_ERR_SUCCESS) {
      return true;
    }
    failure = error_text(rc);
  }
  pause(m_policy.attempt_failed(failure));
  return false;
}

void MqttClient::after_loop_error(int rc) {
  const std::string failure = error_text(rc);
  if (m_lib->socket() >= 0) {
    // The wait failed, not the connection: do not spin.
    pause(kLoopTimeout);
    return;
  }
  pause(m_policy.loop_failed(failure));
}

void MqttClient::pause(ConnectPolicy::Delay delay) {
  if (!delay) {
    return;
  }
  std::unique_lock<std::mutex> lock(m_wake_mutex);
  m_wake_cv.wait_for(lock, *delay, [this] { return m_woken || m_stop_requested; });
  m_woken = false;
}

void MqttClient::wake() {
  {
    std::lock_guard<std::mutex> lock(m_wake_mutex);
    m_woken = true;
  }
  m_wake_cv.notify_all();
}

void MqttClient::on_connect(int rc) {
  if (rc != 0) {
    m_policy.acknowledged(rc);
    return;
  }
  std::size_t count = 0;
  {
    // Under the registry lock, so that no subscribe in between is missed.
    // Connected only once all are queued: a publish seen after is_connected()
    // then reaches the broker after every SUBSCRIBE.
    std::lock_guard<std::mutex> lock(m_registry_mutex);
    resubscribe_all();
    count = m_registry.size();
    m_connected = true;
  }
  m_policy.acknowledged(rc);
  LAPI_LOG(NOTICE, g_log) << "connected to " << m_policy.where() << " as '" << m_client_id << "', "
                          << count << " topics subscribed";
  m_ready_pending = true;
  ready_if_subscribed();
}

void MqttClient::on_subscribe(int mid) {
  const auto it = std::find(m_awaited_subacks.begin(), m_awaited_subacks.end(), mid);
  if (it == m_awaited_subacks.end()) {
    return;
  }
  m_awaited_subacks.erase(it);
  ready_if_subscribed();
}

void MqttClient::ready_if_subscribed() {
  if (!m_ready_pending || !m_awaited_subacks.empty() || m_closing) {
    return;
  }
  m_ready_pending = false;
  if (m_on_connected) {
    m_on_connected();
  }
}

void MqttClient::on_disconnect(int rc) {
  const bool was_connected = m_connected.exchange(false);
  // Not sent again after a reconnect, so never acknowledged.
  m_unacked_unsubscribes.clear();
  m_awaited_subacks.clear();
  m_ready_pending = false;
  m_policy.ended(rc, was_connected);
}

void MqttClient::on_message(const mosquitto_message& raw) {
  if (m_closing) {
    return;  // observers are done once `stop` has returned
  }
  m_inbox.received(raw);
}

void MqttClient::deliver_received() {
  // What a new connection brings waits for its connect callback, which may
  // have to speak first (tokard publishes its state again before it answers).
  if (m_ready_pending) {
    return;
  }
  m_inbox.drain([this](const std::string& topic, const Message& msg) { deliver(topic, msg); });
}

void MqttClient::deliver(const std::string& topic, const Message& msg) {
  // Only the loop thread delivers, one message at a time. A copy of the
  // observers, so that they may subscribe and unsubscribe while being called.
  std::vector<ObserverPtr>& observers = m_observers;
  {
    std::lock_guard<std::mutex> lock(m_registry_mutex);
    m_registry.observers_of(topic, observers);
  }
  for (const auto& observer : observers) {
    observer->message(topic, msg);
  }
  // Now, so that an observer unsubscribed during the call is released now.
  observers.clear();
}

void MqttClient::resubscribe_all() {
  m_awaited_subacks.clear();
  // A few topics per SUBSCRIBE: thousands of single ones cost the broker
  // and the client a packet and an acknowledgement each.
  constexpr std::size_t kBatch = 64;
  std::vector<char*> batches[3];
  const auto flush = [this](std::vector<char*>& batch, int qos) {
    if (batch.empty()) {
      return;
    }
    int mid = 0;
    const int rc = m_lib->subscribe_multiple(&mid, batch, qos);
    if (rc == MOSQ_ERR_SUCCESS) {
      m_awaited_subacks.push_back(mid);
    } else if (rc != MOSQ_ERR_NO_CONN) {
      LAPI_LOG(WARNING, g_log) << batch.size() << " subscriptions from '" << batch.front()
                               << "' onwards not sent: " << error_text(rc);
    }
    batch.clear();
  };
  m_registry.for_each_filter([&](const std::string& topic, int qos) {
    auto& batch = batches[qos];
    batch.push_back(const_cast<char*>(topic.c_str()));  // libmosquitto only reads them
    if (batch.size() == kBatch) {
      flush(batch, qos);
    }
  });
  for (int qos = 0; qos < 3; ++qos) {
    flush(batches[qos], qos);
  }
}

void MqttClient::send_subscribe(const std::string& topic, int qos) {
  const int rc = m_lib->subscribe(nullptr, topic, qos);
  // Without a connection the next CONNACK sends it.
  if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
    LAPI_LOG(WARNING, g_log) << "subscription to '" << topic << "' not sent: " << error_text(rc);
  }
}

std::unique_lock<std::mutex> MqttClient::hold_off_connect() {
  // The loop thread connects itself, so it never races its own attempt.
  if (m_loop_thread.load() == std::this_thread::get_id()) {
    return {};
  }
  return std::unique_lock<std::mutex>(m_socket_mutex);
}

}  // namespace ecu::lapi::com
