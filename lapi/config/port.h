// Broker port numbers, the one place that knows their range.
#pragma once

#include <string_view>

namespace ecu::lapi::config {

inline constexpr int kLowestPort = 1;
inline constexpr int kHighestPort = 65535;

[[nodiscard]] constexpr bool is_port(long long port) {
  return port >= kLowestPort && port <= kHighestPort;
}

// The port that `text` spells in decimal digits only (no sign, no blanks);
// 0 when it spells none.
[[nodiscard]] int parse_port(std::string_view text);

}  // namespace ecu::lapi::config
