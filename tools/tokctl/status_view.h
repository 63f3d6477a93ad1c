// How tokctl shows tokard's availability and the token statuses it keeps
// retained on the broker.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lapi/com/transport.h"

namespace tokctl {

struct EcuStatus {
  std::string ecu;
  std::string holder;  // empty while free
  std::uint64_t generation = 0;
  std::uint64_t granted_unix_ms = 0;
  bool blocked = false;
  std::vector<std::string> topics;
  std::string boot_id;
  std::vector<std::string> waiters;  // the clients in line, first first
};

// The status in a frame; empty when the frame or its body does not decode.
std::optional<EcuStatus> read_status(const ecu::lapi::com::Message& msg);

// "ECU1 held by A for 12 s, generation 3, blocked, waiting B C, topics rt/ECU1 rttx/ECU1"
std::string status_line(const EcuStatus& status, std::uint64_t now_unix_ms);

// The availability line and one line per ECU, in columns; a WAITING column
// when somebody waits.
std::string status_table(const std::string& availability, const std::vector<EcuStatus>& ecus,
                         std::uint64_t now_unix_ms);

// The same as one JSON document.
std::string status_json(const std::string& availability, const std::vector<EcuStatus>& ecus,
                        std::uint64_t now_unix_ms);

// What `status` subscribes: tokard's state, and the status of every ECU or
// of those named.
std::vector<std::string> status_topics(const std::vector<std::string>& ecus);

// Collects tokard's retained state as the broker hands it over.
class StatusCollector : public ecu::lapi::com::ISubscriptionObserver {
 public:
  using Clock = std::chrono::steady_clock;

  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override;
  // When the last message came; the epoch before the first.
  Clock::time_point last() const;
  bool online() const;
  // The table, or the JSON document, of what came.
  std::string report(bool json, std::uint64_t now_unix_ms) const;

 private:
  mutable std::mutex m_mutex;
  Clock::time_point m_last{};
  std::string m_state;
  std::map<std::string, EcuStatus> m_ecus;  // by name
};

}  // namespace tokctl
