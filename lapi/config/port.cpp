#include "lapi/config/port.h"

#include <charconv>

namespace ecu::lapi::config {

int parse_port(std::string_view text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') {
    return 0;
  }
  long long port = 0;
  const char* end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || last != end || !is_port(port)) {
    return 0;
  }
  return static_cast<int>(port);
}

}  // namespace ecu::lapi::config
