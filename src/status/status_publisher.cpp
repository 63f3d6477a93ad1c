#include "status/status_publisher.h"

#include <fstream>
#include <utility>

#include "com/protocol.h"
#include "lapi/logging/logging.h"
#include "tokard/pb/status.pb.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.status");

}  // namespace

std::string read_boot_id() {
  std::ifstream in("/proc/sys/kernel/random/boot_id");
  std::string id;
  std::getline(in, id);
  return id;
}

StatusPublisher::StatusPublisher(std::shared_ptr<ecu::lapi::com::ITransportClient> client,
                                 std::string boot_id)
    : m_client(std::move(client)), m_boot_id(std::move(boot_id)) {}

void StatusPublisher::topic_added(const Ecu& ecu, const std::string& /*topic*/) { changed(ecu); }

void StatusPublisher::token_changed(const Ecu& ecu) { changed(ecu); }

void StatusPublisher::changed(const Ecu& ecu) {
  if (m_changed.empty() || m_changed.back() != &ecu) {
    m_changed.push_back(&ecu);
  }
}

void StatusPublisher::settle() {
  for (const Ecu* ecu : m_changed) {
    publish(*ecu);
  }
  m_changed.clear();
}

void StatusPublisher::publish(const Ecu& ecu) {
  pb::TokenStatus status;
  status.set_ecu(ecu.m_name);
  if (!ecu.holder().empty()) {
    status.set_holder(ecu.holder());
    status.set_granted_unix_ms(ecu.history().granted_unix_ms);
  }
  status.set_generation(ecu.history().generation);
  status.set_blocked(ecu.request_active());
  for (const std::string* topic : ecu.topics_in_order()) {
    status.add_topics(*topic);
    status.add_topics(protocol::tx_topic(*topic));
  }
  status.set_boot_id(m_boot_id);

  ecu::lapi::com::Message msg = protocol::frame(status);
  msg.qos = protocol::kQos;
  msg.extra_flag = true;
  if (msg.payload.empty() || !m_client->publish(protocol::status_topic(ecu.m_name), msg)) {
    LAPI_LOG(WARNING, g_log) << "Status of ECU '" << ecu.m_name << "' not published";
  }
}

}  // namespace tokard
