#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "com/protocol.h"
#include "ecu/ecu_line.h"
#include "ecu/ecu_listener.h"
#include "lapi/com/transport.h"

namespace tokard {

// One ECU's token: which client holds it and since when, and whether the ECU
// accepts requests at all (it does not while its signal group is valid).
// Observes the ECU's real-time topics to follow that group. With a line of
// waiting clients set, all work on the record happens under the line's
// mutex (message() takes it; the request handler and the lease watch hold it).
class Ecu : public ecu::lapi::com::ISubscriptionObserver {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Ecu(const std::string& name);
  ~Ecu() override;

  // Unpacks a signal group; a valid group blocks requests, an invalid one
  // frees the token.
  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override;

  // True when the topic was not recorded before.
  bool add_topic(const std::string& topic);
  // True when `client` holds the token afterwards (granted, taken over from a
  // holder silent for more than m_token_timeout, or refreshed).
  bool acquire_token(const std::string& client);
  // True when the token is free afterwards; false when another client holds it.
  bool release_token(const std::string& client);

  // What the token went through, for those who watch it: grants to a new
  // holder so far, and the wall-clock time of the grant to the holder.
  struct History {
    std::uint64_t generation = 0;
    std::uint64_t granted_unix_ms = 0;
  };

  // Takes the token state back from before a restart: `holder` (may be
  // empty) with a lease that starts at `lease_start`, the request-active
  // flag and the history. Tells the listener nothing.
  void restore(const std::string& holder, Clock::time_point lease_start, bool request_active,
               const History& history);
  // Told about every later change of the holder or the flag.
  void set_listener(std::shared_ptr<EcuListener> listener) { m_listener = std::move(listener); }
  // The line of waiting clients, which outlives every delivery to the record.
  void set_line(EcuLine* line) { m_line = line; }
  // Tell the listener that the line changed, and that a change is complete.
  void line_changed() {
    if (m_listener) {
      m_listener->token_changed(*this);
    }
  }
  void settle() {
    if (m_listener) {
      m_listener->settle();
    }
  }

  const std::set<std::string>& topics() const { return m_topics; }
  // The same, in the order they were added.
  const std::vector<const std::string*>& topics_in_order() const { return m_topic_order; }
  const History& history() const { return m_history; }
  const std::string& holder() const { return m_token_taken_by_client; }
  bool request_active() const { return m_request_active.load(); }
  // The last grant or renewal.
  Clock::time_point lease_start() const { return m_token_time; }
  std::vector<std::string> waiters() const {
    return m_line ? m_line->waiters(*this) : std::vector<std::string>{};
  }

  const std::string m_name;

 protected:
  // The monotonic clock; tests move time through this.
  virtual Clock::time_point now() const { return Clock::now(); }

 private:
  std::string m_token_taken_by_client;
  std::set<std::string> m_topics;
  std::atomic<bool> m_request_active{false};
  // Room for per-ECU resources that should live exactly as long as the
  // record (a CAN filter, say); tokard needs none yet, so both stay empty.
  std::shared_ptr<void> m_handle_a;
  std::shared_ptr<void> m_handle_b;
  Clock::time_point m_token_time{};
  const std::chrono::milliseconds m_token_timeout{protocol::kTokenTimeout};
  std::shared_ptr<EcuListener> m_listener;
  std::vector<const std::string*> m_topic_order;  // into m_topics, whose nodes stay put
  History m_history;
  EcuLine* m_line = nullptr;
};

}  // namespace tokard
