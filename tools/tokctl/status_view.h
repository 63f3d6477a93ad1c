// How tokctl shows tokard's availability and the token statuses it keeps
// retained on the broker.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lapi/com/message.h"

namespace tokctl {

struct EcuStatus {
  std::string ecu;
  std::string holder;  // empty while free
  std::uint64_t generation = 0;
  std::uint64_t granted_unix_ms = 0;
  bool blocked = false;
  std::vector<std::string> topics;
  std::string boot_id;
};

// The status in a frame; empty when the frame or its body does not decode.
std::optional<EcuStatus> read_status(const ecu::lapi::com::Message& msg);

// "ECU1 held by A for 12 s, generation 3, blocked, topics rt/ECU1 rttx/ECU1"
std::string status_line(const EcuStatus& status, std::uint64_t now_unix_ms);

// The availability line and one line per ECU, in columns.
std::string status_table(const std::string& availability, const std::vector<EcuStatus>& ecus,
                         std::uint64_t now_unix_ms);

// The same as one JSON document.
std::string status_json(const std::string& availability, const std::vector<EcuStatus>& ecus,
                        std::uint64_t now_unix_ms);

}  // namespace tokctl
