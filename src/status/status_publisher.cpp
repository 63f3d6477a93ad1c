#include "status/status_publisher.h"

#include <fstream>
#include <mutex>
#include <utility>
#include <vector>

#include "com/protocol.h"
#include "lapi/logging/logging.h"
#include "tokard/pb/status.pb.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.status");

}  // namespace

bool worth_keeping(std::uint64_t generation, bool blocked) { return generation > 0 || blocked; }

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
  if (!worth_keeping(ecu.history().generation, ecu.request_active())) {
    if (m_kept.erase(ecu.m_name) != 0) {
      m_removed.insert(ecu.m_name);
      remove(ecu.m_name);
    }
    return;
  }
  m_kept.emplace(ecu.m_name, &ecu);
  m_removed.erase(ecu.m_name);
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
  for (const std::string& waiter : ecu.waiters()) {
    status.add_waiters(waiter);
  }

  ecu::lapi::com::Message msg = protocol::frame(status);
  msg.qos = protocol::kQos;
  msg.extra_flag = true;
  if (msg.payload.empty() || !m_client->publish(protocol::status_topic(ecu.m_name), msg)) {
    LAPI_LOG(WARNING, g_log) << "Status of ECU '" << ecu.m_name << "' not published";
  }
}

std::size_t StatusPublisher::republish() {
  std::unique_lock<std::mutex> lock;
  if (m_records_lock != nullptr) {
    lock = std::unique_lock<std::mutex>(*m_records_lock);
  }
  std::vector<const Ecu*> kept;
  kept.reserve(m_kept.size());
  for (const auto& [name, ecu] : m_kept) {
    kept.push_back(ecu);
  }
  for (const Ecu* ecu : kept) {
    publish(*ecu);
  }
  // A broker that comes back from an older save may hold them again.
  for (const std::string& name : m_removed) {
    remove(name);
  }
  return kept.size() + m_removed.size();
}

void StatusPublisher::remove(const std::string& name) {
  // An empty retained message deletes the retained one.
  ecu::lapi::com::Message msg;
  msg.qos = protocol::kQos;
  msg.extra_flag = true;
  if (!m_client->publish(protocol::status_topic(name), msg)) {
    LAPI_LOG(WARNING, g_log) << "Status of ECU '" << name << "' not removed";
  }
}

}  // namespace tokard
