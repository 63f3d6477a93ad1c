#include "status/status_readback.h"

#include <utility>

#include "com/protocol.h"
#include "lapi/com/frame.h"
#include "lapi/logging/logging.h"
#include "tokard/pb/status.pb.h"
#include "utils/topic.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.status");

// QoS 0: the broker queues at most max_queued_messages QoS 1 messages for a
// client and drops the rest, and a read-back may bring thousands at once.
constexpr int kStatusQos = 0;

// The request topics of a status: its topics are pairs of a request topic
// naming the ECU and that topic's transmit counterpart.
bool request_topics(const pb::TokenStatus& status, std::vector<std::string>& out) {
  const auto& topics = status.topics();
  if (topics.size() % 2 != 0) {
    return false;
  }
  for (int i = 0; i < topics.size(); i += 2) {
    const auto name = utils::ecu_from_topic(topics[i]);
    if (!name.ok || name.value != status.ecu() || topics[i + 1] != protocol::tx_topic(topics[i])) {
      return false;
    }
    out.push_back(topics[i]);
  }
  return true;
}

}  // namespace

StatusReadback::StatusReadback(std::shared_ptr<ecu::lapi::com::ITransportClient> client,
                               RequestHandler& handler, std::shared_ptr<StatusPublisher> publisher,
                               Clock::time_point started, Now now)
    : m_client(std::move(client)),
      m_handler(handler),
      m_publisher(std::move(publisher)),
      m_started(started),
      m_now(std::move(now)),
      m_marker_topic(protocol::kReadbackTopic),
      m_marker(m_client->client_id() + " " + std::to_string(started.time_since_epoch().count())),
      m_subscriber(std::make_shared<utils::SubWrapper>(this)) {
  m_handler.hold_requests([this] {
    if (!m_complete && m_now() > m_deadline) {
      LAPI_LOG(WARNING, g_log) << "Read-back of token statuses not complete after "
                               << kLongest.count() << " s; deciding requests on what was read";
      finish();
    }
  });
  (void)m_client->subscribe(protocol::kStatusFilter, kStatusQos, m_subscriber);
  (void)m_client->subscribe(m_marker_topic, protocol::kQos, m_subscriber);
}

StatusReadback::~StatusReadback() {
  if (!m_complete) {
    withdraw();
  }
}

void StatusReadback::connected() {
  if (m_complete) {
    return;
  }
  m_deadline = m_now() + kLongest;
  send_marker();
  m_marker_sent = true;
}

void StatusReadback::remind() {
  if (m_marker_sent && !m_complete && m_client->is_connected()) {
    send_marker();
  }
}

void StatusReadback::send_marker() {
  ecu::lapi::com::Message marker;
  marker.qos = protocol::kQos;
  marker.payload.assign(m_marker.begin(), m_marker.end());
  (void)m_client->publish(m_marker_topic, marker);
}

void StatusReadback::message(const std::string& topic, const ecu::lapi::com::Message& msg) {
  if (m_complete) {
    return;
  }
  if (topic == m_marker_topic) {
    if (std::string(msg.payload.begin(), msg.payload.end()) == m_marker) {
      finish();
    }
    return;
  }
  restore(topic, msg);
}

void StatusReadback::restore(const std::string& topic, const ecu::lapi::com::Message& msg) {
  const std::string name = topic.substr(protocol::kStatusPrefix.size());
  const auto frame = ecu::lapi::com::read_frame(msg.payload);
  pb::TokenStatus status;
  std::vector<std::string> topics;
  const char* problem = nullptr;
  if (frame.check != ecu::lapi::com::FrameCheck::Ok) {
    problem = ecu::lapi::com::to_string(frame.check);
  } else if (!status.ParseFromArray(frame.body, frame.body_size)) {
    problem = "not a token status";
  } else if (!status.has_ecu() || status.ecu() != name) {
    problem = "its ECU is not the one of its topic";
  } else if (!request_topics(status, topics)) {
    problem = "its topics are not request topics of the ECU, each with its transmit topic";
  }
  if (problem != nullptr) {
    LAPI_LOG(WARNING, g_log) << "Ignoring retained status on " << topic << ": " << problem;
    return;
  }
  if (!worth_keeping(status.generation(), status.blocked())) {
    LAPI_LOG(DEBUG, g_log) << "Removing retained status of ECU '" << name
                           << "': never held, not blocked";
    m_publisher->remove(name);
    ++m_removed;
    return;
  }

  const bool same_boot =
      !m_publisher->boot_id().empty() && status.boot_id() == m_publisher->boot_id();
  const std::string holder = same_boot && status.has_holder() ? status.holder() : std::string();
  std::shared_ptr<Ecu> ecu = m_handler.ecu_container().restore(name, topics);
  ecu->restore(holder, m_started, status.blocked(),
               {status.generation(), holder.empty() ? 0 : status.granted_unix_ms()});
  m_restored.push_back(std::move(ecu));
  LAPI_LOG(INFO, g_log) << "Restored ECU '" << name << "', generation " << status.generation()
                        << (holder.empty() ? ", free" : ", held by " + holder)
                        << (status.blocked() ? ", blocked" : "");
}

void StatusReadback::finish() {
  m_complete = true;
  withdraw();
  LAPI_LOG(INFO, g_log) << "Read back " << m_restored.size() << " token statuses";
  if (m_removed > 0) {
    LAPI_LOG(INFO, g_log) << "Removed " << m_removed
                          << " retained statuses of ECUs never held and not blocked";
  }
  for (const auto& ecu : m_restored) {
    m_publisher->publish(*ecu);
  }
  m_restored.clear();
  m_handler.release_held();
}

void StatusReadback::withdraw() {
  (void)m_client->unsubscribe(protocol::kStatusFilter, m_subscriber);
  (void)m_client->unsubscribe(m_marker_topic, m_subscriber);
}

}  // namespace tokard
