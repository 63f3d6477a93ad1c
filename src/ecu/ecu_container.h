#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

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

  // The record of ECU `name`, created when needed and made to follow each
  // of `topics` (request topics) as a lookup would, but without logging or
  // telling the listener: the record comes back from before a restart.
  std::shared_ptr<Ecu> restore(const std::string& name, const std::vector<std::string>& topics);

  // Told about new topics of every record, and handed to every record
  // created from now on.
  void set_listener(std::shared_ptr<EcuListener> listener);
  // The line of waiting clients, handed to every record created from now
  // on; it outlives the container.
  void set_line(EcuLine* line);

  // Tells the listener that the changes of one request are complete.
  void settle() const {
    if (m_listener) {
      m_listener->settle();
    }
  }

  std::size_t size() const { return m_ecus.size(); }

 private:
  mutable std::map<std::string, std::shared_ptr<Ecu>> m_ecus;
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
  std::shared_ptr<EcuListener> m_listener;
  EcuLine* m_line = nullptr;

  std::shared_ptr<Ecu>& record(const std::string& name) const;
  bool follow(const std::shared_ptr<Ecu>& ecu, const std::string& topic) const;
};

}  // namespace tokard
