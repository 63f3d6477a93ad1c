#pragma once

#include <cstdint>
#include <vector>

namespace ecu::lapi::com {

// What the transport client delivers and publishes: a frame and its metadata.
class Message {
 public:
  Message() = default;
  virtual ~Message() = default;
  // Declared because the virtual destructor would otherwise turn every move of
  // a frame into a copy of its payload.
  Message(const Message&) = default;
  Message& operator=(const Message&) = default;
  Message(Message&&) noexcept = default;
  Message& operator=(Message&&) noexcept = default;

  std::uint8_t qos = 0;
  std::uint64_t timestamp_ns = 0;  // nanoseconds since boot
  bool timestamp_set = false;
  std::vector<std::uint8_t> payload;
  // Published as the topic's retained message (MQTT 3.1.1, 3.3.1.3); false
  // on every delivered message.
  bool extra_flag = false;
};

}  // namespace ecu::lapi::com
