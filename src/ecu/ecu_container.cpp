#include "ecu/ecu_container.h"

#include <utility>

#include "com/protocol.h"
#include "lapi/logging/logging.h"
#include "utils/topic.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.ecucontainer");

}  // namespace

EcuContainer::EcuContainer(std::shared_ptr<ecu::lapi::com::ITransportClient> client)
    : m_client(std::move(client)) {}

EcuContainer::~EcuContainer() {
  for (const auto& [name, ecu] : m_ecus) {
    for (const auto& topic : ecu->topics()) {
      (void)m_client->unsubscribe(topic, ecu);
      (void)m_client->unsubscribe(protocol::tx_topic(topic), ecu);
    }
  }
}

void EcuContainer::set_listener(std::shared_ptr<EcuListener> listener) {
  m_listener = std::move(listener);
  if (m_listener && m_line != nullptr) {
    m_listener->set_records_lock(m_line->mutex());
  }
}

void EcuContainer::set_line(EcuLine* line) {
  m_line = line;
  if (m_listener && m_line != nullptr) {
    m_listener->set_records_lock(m_line->mutex());
  }
}

std::shared_ptr<Ecu> EcuContainer::ecu_from_topic(const std::string& topic) const {
  const auto name = utils::ecu_from_topic(topic);
  if (!name.ok) {
    LAPI_LOG(WARNING, g_log) << "Unable to get ECU from topic: " << topic;
    return nullptr;
  }
  LAPI_LOG(DEBUG, g_log) << "Got ECU '" << name.value << "' for topic: " << topic;

  if (m_ecus.find(name.value) == m_ecus.end()) {
    LAPI_LOG(INFO, g_log) << "create ECU '" << name.value << "'";
  }
  const std::shared_ptr<Ecu>& ecu = record(name.value);
  if (follow(ecu, topic) && m_listener) {
    m_listener->topic_added(*ecu, topic);
  }
  return ecu;
}

std::shared_ptr<Ecu> EcuContainer::restore(const std::string& name,
                                           const std::vector<std::string>& topics) {
  const std::shared_ptr<Ecu>& ecu = record(name);
  for (const auto& topic : topics) {
    follow(ecu, topic);
  }
  return ecu;
}

std::shared_ptr<Ecu>& EcuContainer::record(const std::string& name) const {
  auto found = m_ecus.find(name);
  if (found == m_ecus.end()) {
    found = m_ecus.emplace(name, std::make_shared<Ecu>(name)).first;
    if (m_listener) {
      found->second->set_listener(m_listener);
    }
    found->second->set_line(m_line);
  }
  return found->second;
}

bool EcuContainer::follow(const std::shared_ptr<Ecu>& ecu, const std::string& topic) const {
  if (!ecu->add_topic(topic)) {
    return false;
  }
  (void)m_client->subscribe(topic, protocol::kQos, ecu);
  (void)m_client->subscribe(protocol::tx_topic(topic), protocol::kQos, ecu);
  return true;
}

}  // namespace tokard
