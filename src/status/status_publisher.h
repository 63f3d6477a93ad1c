#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ecu/ecu.h"
#include "ecu/ecu_listener.h"
#include "lapi/com/transport.h"

namespace tokard {

// Keeps a retained TokenStatus per ECU on "system/tokard/status/<ECU>", so
// that operators see who holds which token and a restarted tokard can take
// the tokens back. Publishes when a record is created, gains a topic, gets a
// new holder, is freed, or is blocked or unblocked; a renewal publishes
// nothing. What changed during a request is published once it is decided,
// just before the answer.
class StatusPublisher : public EcuListener {
 public:
  StatusPublisher(std::shared_ptr<ecu::lapi::com::ITransportClient> client, std::string boot_id);
  ~StatusPublisher() override = default;

  void topic_added(const Ecu& ecu, const std::string& topic) override;
  void token_changed(const Ecu& ecu) override;
  void settle() override;

  void publish(const Ecu& ecu);

  const std::string& boot_id() const { return m_boot_id; }

 private:
  void changed(const Ecu& ecu);

  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
  const std::string m_boot_id;
  // Records live as long as the container, which outlives every request.
  std::vector<const Ecu*> m_changed;
};

// The controller's boot id, /proc/sys/kernel/random/boot_id without its
// newline; empty where there is none.
std::string read_boot_id();

}  // namespace tokard
