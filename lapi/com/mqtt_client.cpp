#include "lapi/com/mqtt_client.h"

#include <netdb.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <system_error>

#include "lapi/config/port.h"
#include "lapi/logging/logging.h"
#include "lapi/time/datetime.h"

namespace ecu::lapi::com {
namespace {

const logging::LogModulePtr g_log = logging::module("lapi.com.mqtt");

// The largest payload MQTT can carry (MQTT 3.1.1, 2.2.3: remaining length).
constexpr std::size_t kMaxPayload = 268435455;

mosquitto* new_handle(const std::string& client_id, void* self) {
  static std::once_flag library_ready;
  std::call_once(library_ready, [] { mosquitto_lib_init(); });
  // libmosquitto refuses an empty id but makes up one for a null id.
  return mosquitto_new(client_id.empty() ? nullptr : client_id.c_str(), true, self);
}

// Call right after the failing call: MOSQ_ERR_ERRNO means errno holds the cause.
std::string reason(int rc) {
  if (rc == MOSQ_ERR_ERRNO) {
    return std::generic_category().message(errno);
  }
  return mosquitto_strerror(rc);
}

bool is_wildcard(const std::string& filter) {
  return filter.find_first_of("+#") != std::string::npos;
}

bool is_clean_utf8(const std::string& text) {
  return !text.empty() && text.find('\0') == std::string::npos &&
         mosquitto_validate_utf8(text.c_str(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

bool is_topic_name(const std::string& topic) {
  return is_clean_utf8(topic) && mosquitto_pub_topic_check(topic.c_str()) == MOSQ_ERR_SUCCESS;
}

}  // namespace

MqttClient::MqttClient(std::string host, int port, std::string client_id, MqttOptions options)
    : m_host(std::move(host)),
      m_port(port),
      m_client_id(std::move(client_id)),
      m_options(options),
      m_handle(new_handle(m_client_id, this), &mosquitto_destroy),
      m_retry_delay(options.first_retry) {
  if (!m_handle) {
    LAPI_LOG(ERROR, g_log) << "cannot create MQTT client '" << m_client_id
                           << "': " << std::generic_category().message(errno);
    return;
  }
  mosquitto* handle = m_handle.get();
  mosquitto_threaded_set(handle, true);
  mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  // Without it an acknowledgement and the next publish wait ~40 ms for the
  // peer's delayed ACK.
  mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
  if (!m_options.username.empty()) {
    const int rc = mosquitto_username_pw_set(
        handle, m_options.username.c_str(),
        m_options.password.empty() ? nullptr : m_options.password.c_str());
    if (rc != MOSQ_ERR_SUCCESS) {
      LAPI_LOG(ERROR, g_log) << "cannot set the broker login of '" << m_client_id
                             << "': " << reason(rc);
    }
  }
  mosquitto_connect_callback_set(handle, &MqttClient::on_connect);
  mosquitto_disconnect_callback_set(handle, &MqttClient::on_disconnect);
  mosquitto_message_callback_set(handle, &MqttClient::on_message);
  mosquitto_publish_callback_set(handle, &MqttClient::on_publish);
  mosquitto_subscribe_callback_set(handle, &MqttClient::on_subscribe);
  mosquitto_unsubscribe_callback_set(handle, &MqttClient::on_unsubscribe);
}

MqttClient::~MqttClient() {
  stop();
  flush_and_disconnect();
}

void MqttClient::flush_and_disconnect() {
  mosquitto* handle = m_handle.get();
  // Without a CONNACK there is no session to close: mosquitto_destroy just
  // drops the socket, also one whose handshake never completed.
  if (handle == nullptr || mosquitto_socket(handle) < 0 || !m_connected) {
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
  while (mosquitto_socket(handle) >= 0 && left_ms() > 0 &&
         (!m_unacked_unsubscribes.empty() || !m_unacked_publishes.empty())) {
    mosquitto_loop(handle, left_ms(), 1);
  }
  if (mosquitto_socket(handle) < 0) {
    return;
  }
  // A clean DISCONNECT, so the broker does not log a dropped client;
  // libmosquitto closes the socket once it is written.
  mosquitto_disconnect(handle);
  while (mosquitto_socket(handle) >= 0 && left_ms() > 0 &&
         mosquitto_loop(handle, left_ms(), 1) == MOSQ_ERR_SUCCESS) {
  }
  if (mosquitto_socket(handle) >= 0) {
    mosquitto_loop_write(handle, 1);
  }
}

bool MqttClient::connect() {
  if (!m_handle || m_host.empty() || !config::is_port(m_port)) {
    LAPI_LOG(ERROR, g_log) << "cannot connect to " << where() << ": unusable broker address";
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
  if (!m_handle) {
    failure = "no MQTT client";
  } else if (msg.payload.size() > kMaxPayload) {
    failure = is_topic_name(topic) ? "payload too large" : "not a valid topic name";
  } else if (topic.empty() || topic.find('\0') != std::string::npos) {
    failure = "not a valid topic name";
  } else {
    // mosquitto_publish checks the name (UTF-8, no wildcards) before it queues
    // anything; checking it here too cost a quarter of this function.
    int mid = 0;
    {
      const auto no_connect = hold_off_connect();
      // While a connect is under way libmosquitto would queue QoS 0 as well.
      rc = msg.qos == 0 && !m_connected
               ? MOSQ_ERR_NO_CONN
               : mosquitto_publish(m_handle.get(), &mid, topic.c_str(),
                                   static_cast<int>(msg.payload.size()), msg.payload.data(),
                                   msg.qos, msg.extra_flag);
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
                           << "' dropped: " << (failure != nullptr ? failure : reason(rc));
  return false;
}

std::size_t MqttClient::subscription_count() const {
  std::lock_guard<std::mutex> lock(m_registry_mutex);
  return m_topics.size();
}

bool MqttClient::subscribe(const std::string& topic, int qos, ObserverPtr observer) {
  if (!observer || qos < 0 || qos > 2 || !is_clean_utf8(topic) ||
      mosquitto_sub_topic_check(topic.c_str()) != MOSQ_ERR_SUCCESS) {
    LAPI_LOG(WARNING, g_log) << "subscription to '" << topic << "' with QoS " << qos
                             << " refused: invalid topic filter, QoS or observer";
    return false;
  }
  const auto no_connect = hold_off_connect();
  std::lock_guard<std::mutex> lock(m_registry_mutex);
  auto [it, added] = m_topics.try_emplace(topic);
  Topic& entry = it->second;
  if (!entry.observers.contains(observer)) {
    entry.observers.add(std::move(observer));
  }
  if (added && is_wildcard(topic)) {
    m_wildcards.push_back(topic);
  }
  if (added || qos > entry.qos) {
    entry.qos = std::max(entry.qos, qos);
    // Before the CONNACK the connect callback sends every topic; sending
    // earlier could put a SUBSCRIBE ahead of the CONNECT.
    if (m_connected) {
      send_subscribe(topic, entry.qos);
    }
  }
  return true;
}

bool MqttClient::unsubscribe(const std::string& topic, ObserverPtr observer) {
  ObserverPtr released;  // dropped after the lock, in case it was the last reference
  const auto no_connect = hold_off_connect();
  std::lock_guard<std::mutex> lock(m_registry_mutex);
  const auto it = m_topics.find(topic);
  if (it == m_topics.end()) {
    return false;
  }
  auto& observers = it->second.observers;
  released = observers.remove(observer);
  if (!released) {
    return false;
  }
  if (!observers.empty()) {
    return true;
  }
  m_topics.erase(it);
  m_wildcards.erase(std::remove(m_wildcards.begin(), m_wildcards.end(), topic), m_wildcards.end());
  if (m_connected) {
    int mid = 0;
    const int rc = mosquitto_unsubscribe(m_handle.get(), &mid, topic.c_str());
    if (rc == MOSQ_ERR_SUCCESS) {
      m_unacked_unsubscribes.sent(mid);
    } else if (rc != MOSQ_ERR_NO_CONN) {
      LAPI_LOG(WARNING, g_log) << "unsubscribe from '" << topic << "' not sent: " << reason(rc);
    }
  }
  return true;
}

const std::string& MqttClient::client_id() const { return m_client_id; }

bool MqttClient::is_running() const { return m_running; }

void MqttClient::start() {
  std::lock_guard<std::mutex> lock(m_lifecycle_mutex);
  if (m_thread.joinable() || !m_handle) {
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
  if (m_handle && is_topic_name(topic) && msg.payload.size() <= kMaxPayload) {
    const auto no_connect = hold_off_connect();
    rc = mosquitto_will_set(m_handle.get(), topic.c_str(), static_cast<int>(msg.payload.size()),
                            msg.payload.data(), msg.qos, msg.extra_flag);
  }
  if (rc != MOSQ_ERR_SUCCESS) {
    LAPI_LOG(WARNING, g_log) << "will on '" << topic << "' refused: " << reason(rc);
  }
  return rc == MOSQ_ERR_SUCCESS;
}

void MqttClient::on_connected(std::function<void()> callback) {
  m_on_connected = std::move(callback);
}

void MqttClient::run() {
  m_loop_thread = std::this_thread::get_id();
  mosquitto* handle = m_handle.get();
  const int timeout_ms = static_cast<int>(kLoopTimeout.count());
  while (!m_stop_requested) {
    const bool open = mosquitto_socket(handle) >= 0;
    if (!m_want_connection) {
      m_lost_at = {};  // a deliberate disconnect is no outage
      if (!open) {
        pause(std::chrono::hours(1));
        continue;
      }
      if (!m_disconnect_sent) {
        mosquitto_disconnect(handle);
        m_disconnect_sent = true;
      }
      // Writes the DISCONNECT; libmosquitto then closes the socket.
      if (mosquitto_loop(handle, timeout_ms, 1) != MOSQ_ERR_SUCCESS &&
          mosquitto_socket(handle) >= 0) {
        pause(kLoopTimeout);
      }
      continue;
    }
    if (!open && !attempt_connect()) {
      continue;
    }
    const int rc = mosquitto_loop(handle, timeout_ms, 1);
    if (rc != MOSQ_ERR_SUCCESS) {
      after_loop_error(rc);
    }
  }
  m_loop_thread = std::thread::id();
}

bool MqttClient::attempt_connect() {
  m_session_up = false;
  m_refusal.clear();
  m_disconnect_sent = false;
  std::string failure;
  {
    std::lock_guard<std::mutex> lock(m_socket_mutex);
    // Non-blocking: the TCP handshake completes in the network loop, which
    // keeps noticing `stop` even when the broker never answers.
    const int rc = mosquitto_connect_async(m_handle.get(), next_address().c_str(), m_port,
                                           m_options.keepalive_s);
    if (rc == MOSQ_ERR_SUCCESS) {
      return true;
    }
    failure = reason(rc);
  }
  retry_later(failure);
  return false;
}

void MqttClient::after_loop_error(int rc) {
  const std::string failure = m_refusal.empty() ? reason(rc) : m_refusal;
  if (mosquitto_socket(m_handle.get()) >= 0) {
    // The wait failed, not the connection: do not spin.
    pause(kLoopTimeout);
    return;
  }
  if (m_session_up) {
    m_session_up = false;
    retry_later("");  // the disconnect callback has logged the loss
    return;
  }
  retry_later(failure);
}

const std::string& MqttClient::next_address() {
  if (m_next_address == 0) {
    m_addresses.clear();
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(m_host.c_str(), nullptr, &hints, &found) == 0) {
      for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
        char text[NI_MAXHOST];
        if (getnameinfo(a->ai_addr, a->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) ==
                0 &&
            std::find(m_addresses.begin(), m_addresses.end(), text) == m_addresses.end()) {
          m_addresses.emplace_back(text);
        }
      }
      freeaddrinfo(found);
    }
    if (m_addresses.empty()) {
      m_addresses.push_back(m_host);  // libmosquitto then says why it cannot connect
    }
  }
  return m_addresses[m_next_address];
}

void MqttClient::retry_later(const std::string& failure) {
  // The next address of this round is tried at once; the back-off starts
  // when every address has failed.
  if (!failure.empty() && ++m_next_address < m_addresses.size()) {
    return;
  }
  m_next_address = 0;
  const auto delay = m_retry_delay;
  if (failure.empty()) {
    LAPI_LOG(INFO, g_log) << "reconnecting to " << where() << " in " << delay.count() << " ms";
  } else if (m_failed_attempts == 0) {
    LAPI_LOG(WARNING, g_log) << "cannot connect to " << where() << ": " << failure
                             << "; retrying in " << delay.count() << " ms";
  } else {
    LAPI_LOG(INFO, g_log) << "cannot connect to " << where() << ": " << failure << "; retrying in "
                          << delay.count() << " ms";
  }
  ++m_failed_attempts;
  m_retry_delay = std::min(delay * 2, m_options.longest_retry);
  pause(delay);
}

void MqttClient::pause(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(m_wake_mutex);
  m_wake_cv.wait_for(lock, limit, [this] { return m_woken || m_stop_requested; });
  m_woken = false;
}

void MqttClient::wake() {
  {
    std::lock_guard<std::mutex> lock(m_wake_mutex);
    m_woken = true;
  }
  m_wake_cv.notify_all();
}

void MqttClient::on_connect(mosquitto* /*handle*/, void* self, int rc) noexcept {
  static_cast<MqttClient*>(self)->connected(rc);
}

void MqttClient::on_disconnect(mosquitto* /*handle*/, void* self, int rc) noexcept {
  static_cast<MqttClient*>(self)->disconnected(rc);
}

void MqttClient::on_message(mosquitto* /*handle*/, void* self,
                            const mosquitto_message* msg) noexcept {
  if (msg != nullptr) {
    static_cast<MqttClient*>(self)->deliver(*msg);
  }
}

void MqttClient::on_publish(mosquitto* /*handle*/, void* self, int mid) noexcept {
  static_cast<MqttClient*>(self)->m_unacked_publishes.acknowledged(mid);
}

void MqttClient::on_subscribe(mosquitto* /*handle*/, void* self, int mid, int /*count*/,
                              const int* /*granted*/) noexcept {
  static_cast<MqttClient*>(self)->subscribed(mid);
}

void MqttClient::on_unsubscribe(mosquitto* /*handle*/, void* self, int mid) noexcept {
  static_cast<MqttClient*>(self)->m_unacked_unsubscribes.acknowledged(mid);
}

void MqttClient::connected(int rc) {
  if (rc != 0) {
    m_refusal = std::string("refused by the broker: ") + mosquitto_connack_string(rc);
    return;
  }
  m_session_up = true;
  m_failed_attempts = 0;
  m_next_address = 0;
  m_retry_delay = m_options.first_retry;
  std::size_t count = 0;
  {
    // Under the registry lock, so that no subscribe in between is missed.
    // Connected only once all are queued: a publish seen after is_connected()
    // then reaches the broker after every SUBSCRIBE.
    std::lock_guard<std::mutex> lock(m_registry_mutex);
    resubscribe_all();
    count = m_topics.size();
    m_connected = true;
  }
  if (m_lost_at != std::chrono::steady_clock::time_point{}) {
    const std::chrono::duration<double> down = std::chrono::steady_clock::now() - m_lost_at;
    m_lost_at = {};
    const long long tenths = std::llround(down.count() * 10);
    LAPI_LOG(WARNING, g_log) << "connection to " << where() << " back after " << tenths / 10 << "."
                             << tenths % 10 << " s";
  }
  LAPI_LOG(NOTICE, g_log) << "connected to " << where() << " as '" << m_client_id << "', " << count
                          << " topics subscribed";
  m_ready_pending = true;
  ready_if_subscribed();
}

void MqttClient::subscribed(int mid) {
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

void MqttClient::disconnected(int rc) {
  const bool was_connected = m_connected.exchange(false);
  // Not sent again after a reconnect, so never acknowledged.
  m_unacked_unsubscribes.clear();
  m_awaited_subacks.clear();
  m_ready_pending = false;
  if (rc == MOSQ_ERR_SUCCESS) {
    LAPI_LOG(INFO, g_log) << "disconnected from " << where();
  } else if (was_connected) {
    m_lost_at = std::chrono::steady_clock::now();
    LAPI_LOG(WARNING, g_log) << "connection to " << where() << " lost: " << reason(rc);
  }
}

void MqttClient::deliver(const mosquitto_message& raw) {
  if (m_closing) {
    return;  // observers are done once `stop` has returned
  }
  // Only the loop thread delivers, one message at a time: the message, its
  // topic and the observer list keep their storage from one to the next.
  Message& msg = m_delivery.msg;
  msg.timestamp_ns = DateTime::time_since_boot_ns();
  msg.timestamp_set = true;
  msg.qos = static_cast<std::uint8_t>(raw.qos);
  msg.payload.clear();
  if (raw.payload != nullptr && raw.payloadlen > 0) {
    const auto* bytes = static_cast<const std::uint8_t*>(raw.payload);
    msg.payload.assign(bytes, bytes + raw.payloadlen);
  }
  std::string& topic = m_delivery.topic;
  topic.assign(raw.topic != nullptr ? raw.topic : "");
  // A copy, so that observers may subscribe and unsubscribe while being called.
  std::vector<ObserverPtr>& observers = m_delivery.observers;
  observers_of(topic, observers);
  for (const auto& observer : observers) {
    observer->message(topic, msg);
  }
  // Now, so that an observer unsubscribed during the call is released now.
  observers.clear();
}

void MqttClient::observers_of(const std::string& topic, std::vector<ObserverPtr>& found) const {
  found.clear();
  std::lock_guard<std::mutex> lock(m_registry_mutex);
  if (const auto it = m_topics.find(topic); it != m_topics.end()) {
    it->second.observers.for_each(
        [&found](const ObserverPtr& observer) { found.push_back(observer); });
  }
  for (const auto& filter : m_wildcards) {
    bool matches = false;
    if (mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &matches) != MOSQ_ERR_SUCCESS ||
        !matches) {
      continue;
    }
    m_topics.at(filter).observers.for_each([&found](const ObserverPtr& observer) {
      if (std::find(found.begin(), found.end(), observer) == found.end()) {
        found.push_back(observer);
      }
    });
  }
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
    const int rc = mosquitto_subscribe_multiple(
        m_handle.get(), &mid, static_cast<int>(batch.size()), batch.data(), qos, 0, nullptr);
    if (rc == MOSQ_ERR_SUCCESS) {
      m_awaited_subacks.push_back(mid);
    } else if (rc != MOSQ_ERR_NO_CONN) {
      LAPI_LOG(WARNING, g_log) << batch.size() << " subscriptions from '" << batch.front()
                               << "' onwards not sent: " << reason(rc);
    }
    batch.clear();
  };
  for (const auto& [topic, entry] : m_topics) {
    auto& batch = batches[entry.qos];
    batch.push_back(const_cast<char*>(topic.c_str()));  // libmosquitto only reads them
    if (batch.size() == kBatch) {
      flush(batch, entry.qos);
    }
  }
  for (int qos = 0; qos < 3; ++qos) {
    flush(batches[qos], qos);
  }
}

void MqttClient::send_subscribe(const std::string& topic, int qos) {
  const int rc = mosquitto_subscribe(m_handle.get(), nullptr, topic.c_str(), qos);
  // Without a connection the next CONNACK sends it.
  if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
    LAPI_LOG(WARNING, g_log) << "subscription to '" << topic << "' not sent: " << reason(rc);
  }
}

std::unique_lock<std::mutex> MqttClient::hold_off_connect() {
  // The loop thread connects itself, so it never races its own attempt.
  if (m_loop_thread.load() == std::this_thread::get_id()) {
    return {};
  }
  return std::unique_lock<std::mutex>(m_socket_mutex);
}

std::string MqttClient::where() const { return m_host + ":" + std::to_string(m_port); }

}  // namespace ecu::lapi::com
