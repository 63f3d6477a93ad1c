#pragma once

#include <cstdint>
#include <vector>

namespace ecu::lapi::com {

// What the transport client delivers and publishes: a frame and its metadata.
class Message {
 public:
  virtual ~Message() = default;

  std::uint8_t qos = 0;
  std::uint64_t timestamp_ns = 0;  // nanoseconds since boot
  bool timestamp_set = false;
  std::vector<std::uint8_t> payload;
  bool extra_flag = false;
};

}  // namespace ecu::lapi::com
