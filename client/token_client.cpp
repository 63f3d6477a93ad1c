#include "tokard/token_client.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "com/protocol.h"
#include "lapi/com/transport.h"
#include "lapi/config/configuration.h"

namespace tokard::client {
namespace {

using Clock = std::chrono::steady_clock;
using ecu::lapi::com::ITransportClient;
using ecu::lapi::com::Message;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;

using protocol::kRequestTopic;
constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{2000};
constexpr std::chrono::milliseconds kConnectPoll{10};
constexpr std::chrono::milliseconds kOfflineGrace{300};

class ClientCategory : public std::error_category {
 public:
  const char* name() const noexcept override { return "tokard.client"; }
  std::string message(int value) const override {
    switch (static_cast<ClientError>(value)) {
      case ClientError::InvalidClientName:
        return "client name is empty or contains '+', '#' or a NUL byte";
      case ClientError::InvalidBroker:
        return "broker host is empty or port is not in 1..65535";
      case ClientError::InvalidTiming:
        return "answer time-out must be above zero, refresh period above zero and below 10 s";
      case ClientError::BrokerUnreachable:
        return "no connection to the broker";
      case ClientError::NotConnected:
        return "not connected to the broker";
      case ClientError::SendFailed:
        return "the message could not be sent";
    }
    return "unknown tokard client error";
  }
};

std::string unique_mqtt_id(const std::string& client_name) {
  static std::atomic<unsigned> counter{0};
  return client_name + "-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
}

bool valid_client_name(const std::string& name) {
  return !name.empty() && name.find_first_of(std::string("+#\0", 3)) == std::string::npos;
}

// The answer a response carries, or nothing for a result tokard never sends.
bool answer_of(const PgnRequestTokenResponse& response, AcquireResult& out) {
  switch (response.result()) {
    case PgnRequestTokenResponse::ACQUIRED:
      out = AcquireResult::Acquired;
      return true;
    case PgnRequestTokenResponse::BUSY:
      out = AcquireResult::Busy;
      return true;
    case PgnRequestTokenResponse::NO_ECU:
      out = AcquireResult::NoEcu;
      return true;
    default:
      return false;
  }
}

}  // namespace

const char* to_string(AcquireResult result) noexcept {
  switch (result) {
    case AcquireResult::Acquired:
      return "acquired";
    case AcquireResult::Busy:
      return "busy";
    case AcquireResult::NoEcu:
      return "no ECU";
    case AcquireResult::NoAnswer:
      return "no answer";
  }
  return "unknown";
}

const char* to_string(TokardState state) noexcept {
  switch (state) {
    case TokardState::Online:
      return "online";
    case TokardState::Offline:
      return "offline";
    case TokardState::Unknown:
      break;
  }
  return "unknown";
}

const std::error_category& client_category() noexcept {
  static const ClientCategory category;
  return category;
}

std::error_code make_error_code(ClientError error) noexcept {
  return {static_cast<int>(error), client_category()};
}

// Lock order: m_send_mutex before m_mutex. m_send_mutex keeps "is the token
// held" and the request that follows from it in one step, so a renewal is
// never sent after the release of the same token. Nobody waits for the
// delivery thread while holding either lock.
class TokenClient::Impl {
 public:
  explicit Impl(ClientOptions options)
      : m_options(std::move(options)),
        m_response_topic(protocol::response_topic(m_options.client_name)) {}

  virtual ~Impl() {
    interrupt();
    stop_refresh();
    if (m_transport) {
      {
        std::lock_guard<std::mutex> send(m_send_mutex);
        std::map<std::string, Held> held;
        {
          std::lock_guard<std::mutex> lock(m_mutex);
          held.swap(m_held);
        }
        for (const auto& entry : held) {
          send_request(PgnRequestTokenRequest::RELEASE, entry.first);
        }
      }
      m_transport->unsubscribe(m_response_topic, m_observer);
      m_transport->unsubscribe(protocol::kStateTopic, m_observer);
      m_transport->stop();
      // The last reference: the client writes what is queued, the releases
      // included, before it closes the connection.
      m_transport.reset();
    }
  }

  std::error_code connect(std::chrono::milliseconds timeout) {
    if (m_transport) {
      return {};
    }
    if (!valid_client_name(m_options.client_name)) {
      return ClientError::InvalidClientName;
    }
    if (m_options.host.empty() || m_options.port < 1 || m_options.port > 65535) {
      return ClientError::InvalidBroker;
    }
    if (m_options.answer_timeout.count() <= 0 || m_options.refresh_period.count() <= 0 ||
        m_options.refresh_period >= kTokenTimeout) {
      return ClientError::InvalidTiming;
    }
    auto config = std::make_unique<ecu::lapi::config::Configuration>();
    config->set("host", m_options.host);
    config->set("port", std::to_string(m_options.port));
    config->set("client_name", m_options.mqtt_client_id.empty()
                                   ? unique_mqtt_id(m_options.client_name)
                                   : m_options.mqtt_client_id);
    config->set("username", m_options.username);
    config->set("password", m_options.password);
    auto transport = ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
    if (!transport) {
      return ClientError::InvalidBroker;
    }
    m_observer = std::make_shared<Observer>(*this);
    // Subscribed before the connection exists, so the broker has it before
    // the first request goes out.
    if (!transport->subscribe(m_response_topic, 1, m_observer)) {
      return ClientError::InvalidClientName;
    }
    transport->subscribe(protocol::kStateTopic, 1, m_observer);
    if (!transport->connect()) {
      return ClientError::InvalidBroker;
    }
    transport->start();
    const auto deadline = Clock::now() + timeout;
    while (!transport->is_connected()) {
      if (Clock::now() >= deadline) {
        transport->stop();
        return ClientError::BrokerUnreachable;
      }
      std::this_thread::sleep_for(kConnectPoll);
    }
    m_transport = std::move(transport);
    m_refresh_thread = std::thread([this] { refresh_loop(); });
    return {};
  }

  AcquireResult acquire(const std::string& topic, bool keep, std::chrono::milliseconds timeout) {
    if (topic.empty()) {
      return AcquireResult::NoEcu;
    }
    if (!m_transport || m_interrupted) {
      return AcquireResult::NoAnswer;
    }
    std::uint64_t asked_at = 0;
    const auto asked = Clock::now();
    {
      std::lock_guard<std::mutex> send(m_send_mutex);
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        asked_at = m_answer_count;
        ++m_pending[topic];
      }
      send_request(PgnRequestTokenRequest::ACQUIRE, topic);
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto done = [&] {
      const auto it = m_answers.find(topic);
      return m_interrupted || (it != m_answers.end() && it->second.number > asked_at);
    };
    // While tokard says it is offline (also when that arrives meanwhile), it
    // gets a moment to come back, not the whole time-out.
    bool answered = done();
    for (auto limit = asked + timeout; !answered && Clock::now() < limit; answered = done()) {
      limit =
          asked + (m_state == TokardState::Offline ? std::min(timeout, kOfflineGrace) : timeout);
      m_answered.wait_until(lock, limit);
    }
    if (--m_pending[topic] == 0) {
      m_pending.erase(topic);
    }
    const auto it = m_answers.find(topic);
    if (!answered || it == m_answers.end() || it->second.number <= asked_at) {
      return AcquireResult::NoAnswer;
    }
    const AcquireResult result = it->second.result;
    if (result == AcquireResult::Acquired && keep) {
      m_held[topic].confirmed = Clock::now();
    }
    return result;
  }

  AcquireResult wait_for_token(const std::string& topic, Clock::time_point deadline) {
    auto pause = kFirstPause;
    AcquireResult result = acquire(topic, true, m_options.answer_timeout);
    for (;;) {
      if (result == AcquireResult::Acquired || result == AcquireResult::NoEcu || !m_transport) {
        return result;
      }
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto resume = std::min(deadline, Clock::now() + pause);
        m_answered.wait_until(lock, resume, [this] { return m_interrupted.load(); });
      }
      const auto now = Clock::now();
      if (m_interrupted || now >= deadline) {
        return result;
      }
      pause = std::min(pause * 2, kLongestPause);
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
      const AcquireResult next =
          acquire(topic, true, std::min(m_options.answer_timeout, std::max(left, kConnectPoll)));
      // An interrupted or late attempt tells nothing new about the token.
      if (next != AcquireResult::NoAnswer || result == AcquireResult::NoAnswer) {
        result = next;
      }
    }
  }

  std::error_code release(const std::string& topic) {
    if (!m_transport) {
      return ClientError::NotConnected;
    }
    std::lock_guard<std::mutex> send(m_send_mutex);
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_held.erase(topic);
    }
    if (!send_request(PgnRequestTokenRequest::RELEASE, topic)) {
      return ClientError::SendFailed;
    }
    return {};
  }

  bool holds(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_held.count(topic) != 0;
  }

  void on_token_lost(LostHandler handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lost_handler = std::move(handler);
  }

  void interrupt() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_interrupted = true;
    }
    m_answered.notify_all();
  }

  const ClientOptions& options() const { return m_options; }
  TokardState tokard_state() const { return m_state; }

 private:
  class Observer : public ecu::lapi::com::ISubscriptionObserver {
   public:
    explicit Observer(Impl& owner) : m_owner(owner) {}
    void message(const std::string& topic, const Message& msg) override {
      if (topic == protocol::kStateTopic) {
        m_owner.state(msg);
      } else {
        m_owner.response(msg);
      }
    }

   private:
    Impl& m_owner;  // outlives every delivery: the transport stops first
  };

  struct Answer {
    AcquireResult result = AcquireResult::NoAnswer;
    std::uint64_t number = 0;  // m_answer_count when it arrived
  };
  struct Held {
    Clock::time_point confirmed;  // last Acquired answer
  };
  struct Lost {
    std::string topic;
    AcquireResult why;
  };

  bool send_request(PgnRequestTokenRequest::Action action, const std::string& topic) {
    Message msg = protocol::request_frame(action, topic, m_options.client_name);
    if (msg.payload.empty()) {
      return false;
    }
    msg.qos = 1;
    return m_transport->publish(kRequestTopic, msg);
  }

  // On the delivery thread.
  void state(const Message& msg) {
    const std::string text(msg.payload.begin(), msg.payload.end());
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_state = text == protocol::kOnline    ? TokardState::Online
                : text == protocol::kOffline ? TokardState::Offline
                                             : TokardState::Unknown;
    }
    m_answered.notify_all();
  }

  // On the delivery thread.
  void response(const Message& msg) {
    auto decoded = protocol::read<PgnRequestTokenResponse>(msg);
    AcquireResult result = AcquireResult::NoAnswer;
    if (!decoded.ok || !decoded.value.has_request_topic() || !answer_of(decoded.value, result)) {
      return;
    }
    const std::string& topic = decoded.value.request_topic();
    bool lost = false;
    bool unwanted = false;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_answers[topic] = {result, ++m_answer_count};
      const auto held = m_held.find(topic);
      if (held != m_held.end()) {
        if (result == AcquireResult::Acquired) {
          held->second.confirmed = Clock::now();
        } else {
          m_held.erase(held);
          m_lost.push_back({topic, result});
          lost = true;
        }
      } else {
        unwanted = result == AcquireResult::Acquired && m_pending.count(topic) == 0;
      }
    }
    m_answered.notify_all();
    if (lost) {
      m_wake.notify_all();
    }
    if (unwanted) {
      give_back(topic);
    }
  }

  // A grant nobody waits for: the answer to a renewal that crossed a
  // release, or one that came after its acquire gave up. Keeping it would
  // block the ECU for others until it times out.
  void give_back(const std::string& topic) {
    std::lock_guard<std::mutex> send(m_send_mutex);
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_held.count(topic) != 0 || m_pending.count(topic) != 0) {
        return;
      }
    }
    send_request(PgnRequestTokenRequest::RELEASE, topic);
  }

  void refresh_loop() {
    auto next_refresh = Clock::now() + m_options.refresh_period;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
      m_wake.wait_until(lock, next_refresh, [this] { return m_stopping || !m_lost.empty(); });
      if (m_stopping) {
        break;
      }
      if (!m_lost.empty()) {
        std::vector<Lost> lost;
        lost.swap(m_lost);
        const LostHandler handler = m_lost_handler;
        lock.unlock();
        for (const auto& entry : lost) {
          if (handler) {
            handler(entry.topic, entry.why);
          }
        }
        lock.lock();
        continue;
      }
      const auto now = Clock::now();
      if (now < next_refresh) {
        continue;
      }
      next_refresh = now + m_options.refresh_period;
      for (auto it = m_held.begin(); it != m_held.end();) {
        if (now - it->second.confirmed > kTokenTimeout) {
          m_lost.push_back({it->first, AcquireResult::NoAnswer});
          it = m_held.erase(it);
        } else {
          ++it;
        }
      }
      lock.unlock();
      renew_all();
      lock.lock();
    }
  }

  // Renewals are not waited for: their answers update m_held as they come.
  void renew_all() {
    std::lock_guard<std::mutex> send(m_send_mutex);
    std::vector<std::string> topics;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      for (const auto& entry : m_held) {
        topics.push_back(entry.first);
      }
    }
    for (const auto& topic : topics) {
      send_request(PgnRequestTokenRequest::ACQUIRE, topic);
    }
  }

  void stop_refresh() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
    }
    m_wake.notify_all();
    if (m_refresh_thread.joinable()) {
      m_refresh_thread.join();
    }
  }

  const ClientOptions m_options;
  const std::string m_response_topic;
  std::shared_ptr<ITransportClient> m_transport;  // set once connected
  std::shared_ptr<Observer> m_observer;

  std::mutex m_send_mutex;
  mutable std::mutex m_mutex;
  std::condition_variable m_answered;  // a response arrived, or interrupt()
  std::condition_variable m_wake;      // the refresh thread has work
  std::map<std::string, Answer> m_answers;
  std::uint64_t m_answer_count = 0;
  std::map<std::string, int> m_pending;  // acquires waiting, per topic
  std::map<std::string, Held> m_held;
  std::vector<Lost> m_lost;  // to report on the refresh thread
  LostHandler m_lost_handler;
  std::atomic<bool> m_interrupted{false};
  std::atomic<TokardState> m_state{TokardState::Unknown};
  bool m_stopping = false;
  std::thread m_refresh_thread;
};

TokenClient::TokenClient(ClientOptions options)
    : m_impl(std::make_unique<Impl>(std::move(options))) {}

TokenClient::~TokenClient() = default;

std::error_code TokenClient::connect(std::chrono::milliseconds timeout) {
  return m_impl->connect(timeout);
}

AcquireResult TokenClient::acquire(const std::string& topic) {
  return m_impl->acquire(topic, true, m_impl->options().answer_timeout);
}

AcquireResult TokenClient::acquire_once(const std::string& topic) {
  return m_impl->acquire(topic, false, m_impl->options().answer_timeout);
}

AcquireResult TokenClient::wait_for_token(const std::string& topic,
                                          std::chrono::steady_clock::time_point deadline) {
  return m_impl->wait_for_token(topic, deadline);
}

std::error_code TokenClient::release(const std::string& topic) { return m_impl->release(topic); }

bool TokenClient::holds(const std::string& topic) const { return m_impl->holds(topic); }

void TokenClient::on_token_lost(LostHandler handler) { m_impl->on_token_lost(std::move(handler)); }

void TokenClient::interrupt() { m_impl->interrupt(); }

const std::string& TokenClient::client_name() const { return m_impl->options().client_name; }

TokardState TokenClient::tokard_state() const { return m_impl->tokard_state(); }

}  // namespace tokard::client
