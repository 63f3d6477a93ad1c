#include "tokard/token_client.h"

#include <unistd.h>

#include <atomic>
#include <utility>

#include "client/connection.h"
#include "client/session.h"
#include "com/protocol.h"

namespace tokard::client {

static_assert(TokenClient::kTokenTimeout == protocol::kTokenTimeout,
              "the public header repeats the protocol's token time-out");

namespace {

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

bool valid_timing(const ClientOptions& options) {
  return options.answer_timeout.count() > 0 && options.refresh_period.count() > 0 &&
         options.refresh_period < protocol::kTokenTimeout;
}

ClientError error_of(BusError error) {
  switch (error) {
    case BusError::InvalidTopic:
      return ClientError::InvalidClientName;
    case BusError::Unreachable:
      return ClientError::BrokerUnreachable;
    case BusError::InvalidBroker:
    case BusError::None:
      break;
  }
  return ClientError::InvalidBroker;
}

}  // namespace

const char* to_string(AcquireResult result) noexcept {
  switch (result) {
    case AcquireResult::Acquired:
      return protocol::to_word(protocol::Response::ACQUIRED);
    case AcquireResult::Busy:
      return protocol::to_word(protocol::Response::BUSY);
    case AcquireResult::NoEcu:
      return protocol::to_word(protocol::Response::NO_ECU);
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

// The options, the session that speaks the protocol, and once connected the
// connection that carries it; the connection ends first.
class TokenClient::Impl {
 public:
  explicit Impl(ClientOptions options)
      : options(std::move(options)),
        session(this->options.client_name,
                {this->options.answer_timeout, this->options.refresh_period}) {}

  virtual ~Impl() {
    session.interrupt();
    connection.reset();
  }

  std::error_code connect(std::chrono::milliseconds timeout) {
    if (connection) {
      return {};
    }
    if (!valid_client_name(options.client_name)) {
      return ClientError::InvalidClientName;
    }
    if (!valid_timing(options)) {
      return ClientError::InvalidTiming;
    }
    const BusSettings settings{options.host, options.port,
                               options.mqtt_client_id.empty() ? unique_mqtt_id(options.client_name)
                                                              : options.mqtt_client_id,
                               options.username, options.password};
    BusError error = BusError::None;
    connection = Connection::open(session, settings, protocol::response_topic(options.client_name),
                                  options.refresh_period, timeout, error);
    return connection ? std::error_code() : error_of(error);
  }

  const ClientOptions options;
  Session session;
  std::unique_ptr<Connection> connection;
};

TokenClient::TokenClient(ClientOptions options)
    : m_impl(std::make_unique<Impl>(std::move(options))) {}

TokenClient::~TokenClient() = default;

std::error_code TokenClient::connect(std::chrono::milliseconds timeout) {
  return m_impl->connect(timeout);
}

AcquireResult TokenClient::acquire(const std::string& topic) {
  return m_impl->session.acquire(topic, Ledger::Kind::Keep);
}

AcquireResult TokenClient::acquire_once(const std::string& topic) {
  return m_impl->session.acquire(topic, Ledger::Kind::Once);
}

AcquireResult TokenClient::wait_for_token(const std::string& topic,
                                          std::chrono::steady_clock::time_point deadline) {
  return m_impl->session.wait_for_token(topic, deadline);
}

std::error_code TokenClient::release(const std::string& topic) {
  return m_impl->session.release(topic);
}

bool TokenClient::holds(const std::string& topic) const { return m_impl->session.holds(topic); }

std::optional<std::chrono::steady_clock::time_point> TokenClient::granted_at(
    const std::string& topic) const {
  return m_impl->session.granted_at(topic);
}

void TokenClient::on_token_lost(LostHandler handler) {
  m_impl->session.on_token_lost(std::move(handler));
}

void TokenClient::interrupt() { m_impl->session.interrupt(); }

const std::string& TokenClient::client_name() const { return m_impl->options.client_name; }

TokardState TokenClient::tokard_state() const { return m_impl->session.tokard_state(); }

}  // namespace tokard::client
