#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ecu/ecu.h"
#include "ecu/ecu_listener.h"
#include "lapi/com/transport.h"

namespace tokard {

// Whether a status is worth keeping on the broker: its ECU was held at least
// once (its generation must never go back) or is blocked. Anything else
// leaves no retained status, so names that nobody ever held cost nothing.
[[nodiscard]] bool worth_keeping(std::uint64_t generation, bool blocked);

// Keeps a retained TokenStatus per ECU on "system/tokard/status/<ECU>", so
// that operators see who holds which token and a restarted tokard can take
// the tokens back. Publishes when a record gains a topic, gets a new holder,
// is freed, or is blocked or unblocked, as long as it is worth keeping; a
// status that stops being worth keeping is removed, and a renewal publishes
// nothing. What changed during a request is published once it is decided,
// just before the answer.
class StatusPublisher : public EcuListener {
 public:
  StatusPublisher(std::shared_ptr<ecu::lapi::com::ITransportClient> client, std::string boot_id);
  ~StatusPublisher() override = default;

  void topic_added(const Ecu& ecu, const std::string& topic) override;
  void token_changed(const Ecu& ecu) override;
  void settle() override;
  void set_records_lock(std::mutex& lock) override { m_records_lock = &lock; }

  void publish(const Ecu& ecu);
  // Publishes the status of every record worth keeping again, and removes
  // again every status this run removed, under the records' lock; returns
  // how many messages that took.
  std::size_t republish();
  // Removes the retained status of ECU `name` from the broker.
  void remove(const std::string& name);

  const std::string& boot_id() const { return m_boot_id; }

 private:
  void changed(const Ecu& ecu);

  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
  const std::string m_boot_id;
  // Records live as long as the container, which outlives every request.
  std::vector<const Ecu*> m_changed;
  // The records whose status is on the broker, by name.
  std::map<std::string, const Ecu*> m_kept;
  // The ECUs whose status this run removed: once blocked, never held.
  std::set<std::string> m_removed;
  std::mutex* m_records_lock = nullptr;
};

// The controller's boot id, /proc/sys/kernel/random/boot_id without its
// newline; empty where there is none.
std::string read_boot_id();

}  // namespace tokard
