#include "status/status_republisher.h"

#include <chrono>
#include <utility>

#include "com/protocol.h"
#include "lapi/logging/logging.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.status");

}  // namespace

StatusRepublisher::StatusRepublisher(std::shared_ptr<ecu::lapi::com::ITransportClient> client,
                                     std::shared_ptr<StatusPublisher> publisher)
    : m_client(std::move(client)),
      m_publisher(std::move(publisher)),
      m_subscriber(std::make_shared<utils::SubWrapper>(this)) {}

StatusRepublisher::~StatusRepublisher() {
  if (m_subscribed) {
    (void)m_client->unsubscribe(protocol::kReadbackTopic, m_subscriber);
  }
}

void StatusRepublisher::connected() {
  if (m_round_out) {
    m_again = true;
    // The marker may have reached the broker before the subscription did.
    send_marker();
    return;
  }
  start_round();
}

void StatusRepublisher::start_round() {
  m_again = false;
  const std::size_t count = m_publisher->republish();
  if (count == 0) {
    return;
  }
  // Subscribed with the first round, so that a tokard that never reconnects
  // subscribes nothing more.
  if (!m_subscribed) {
    m_subscribed = m_client->subscribe(protocol::kReadbackTopic, protocol::kQos, m_subscriber);
  }
  m_round_size = count;
  m_round_started = Clock::now();
  ++m_round;
  m_round_out = true;
  send_marker();
}

void StatusRepublisher::remind() {
  if (m_round_out && m_client->is_connected()) {
    send_marker();
  }
}

std::string StatusRepublisher::marker(std::uint64_t round) const {
  return m_client->client_id() + " republished " + std::to_string(round);
}

void StatusRepublisher::send_marker() {
  const std::string text = marker(m_round);
  ecu::lapi::com::Message msg;
  msg.qos = protocol::kQos;
  msg.payload.assign(text.begin(), text.end());
  (void)m_client->publish(protocol::kReadbackTopic, msg);
}

void StatusRepublisher::message(const std::string& topic, const ecu::lapi::com::Message& msg) {
  if (!m_round_out || topic != protocol::kReadbackTopic ||
      std::string(msg.payload.begin(), msg.payload.end()) != marker(m_round)) {
    return;
  }
  m_round_out = false;
  const auto took =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_round_started);
  LAPI_LOG(INFO, g_log) << "Published " << m_round_size << " token statuses again in "
                        << took.count() << " ms" << (m_again ? "; reconnected meanwhile" : "");
  if (m_again) {
    start_round();
  }
}

}  // namespace tokard
