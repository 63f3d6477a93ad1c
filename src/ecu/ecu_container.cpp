#include "ecu/ecu_container.h"

#include <utility>

#include "lapi/logging/logging.h"
#include "utils/topic.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.ecucontainer");

constexpr int kQos = 1;

// Drops three characters whatever the prefix, so "rttx/ECU1" pairs with
// "rttx/x/ECU1"; that pairing is deliberate.
std::string tx_topic(const std::string& topic) { return "rttx/" + topic.substr(3); }

}  // namespace

EcuContainer::EcuContainer(std::shared_ptr<ecu::lapi::com::ITransportClient> client)
    : m_client(std::move(client)) {}

EcuContainer::~EcuContainer() {
  for (const auto& [name, ecu] : m_ecus) {
    for (const auto& topic : ecu->topics()) {
      m_client->unsubscribe(topic, ecu);
      m_client->unsubscribe(tx_topic(topic), ecu);
    }
  }
}

std::shared_ptr<Ecu> EcuContainer::ecu_from_topic(const std::string& topic) const {
  const auto name = utils::ecu_from_topic(topic);
  if (!name.ok) {
    LAPI_LOG(WARNING, g_log) << "Unable to get ECU from topic: " << topic;
    return nullptr;
  }
  LAPI_LOG(DEBUG, g_log) << "Got ECU '" << name.value << "' for topic: " << topic;

  auto found = m_ecus.find(name.value);
  if (found == m_ecus.end()) {
    LAPI_LOG(INFO, g_log) << "create ECU '" << name.value << "'";
    found = m_ecus.emplace(name.value, std::make_shared<Ecu>(name.value)).first;
  }
  const std::shared_ptr<Ecu>& ecu = found->second;
  if (ecu->add_topic(topic)) {
    m_client->subscribe(topic, kQos, ecu);
    m_client->subscribe(tx_topic(topic), kQos, ecu);
  }
  return ecu;
}

}  // namespace tokard
