#pragma once

#include <map>
#include <memory>
#include <string>

#include "ecu/ecu.h"
#include "lapi/com/transport.h"

namespace tokard {

// One Ecu record per ECU name, created on first use and subscribed to each
// of its topics and their "rttx/" counterparts; every subscription is
// withdrawn on destruction.
class EcuContainer {
 public:
  explicit EcuContainer(std::shared_ptr<ecu::lapi::com::ITransportClient> client);
  virtual ~EcuContainer();
  EcuContainer(const EcuContainer&) = delete;
  EcuContainer& operator=(const EcuContainer&) = delete;

  // The record of the ECU that `topic` names, created when needed; empty for
  // a topic that is not an RT topic.
  std::shared_ptr<Ecu> ecu_from_topic(const std::string& topic) const;

  std::size_t size() const { return m_ecus.size(); }

 private:
  mutable std::map<std::string, std::shared_ptr<Ecu>> m_ecus;
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
};

}  // namespace tokard
