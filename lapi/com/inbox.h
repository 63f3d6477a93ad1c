// Messages received during one pass of libmosquitto's network loop, kept
// until the pass is over. libmosquitto calls back with its own callback lock
// held; observers called from there would order any lock of theirs after
// it, and a thread that holds such a lock while publishing would close a
// cycle of locks. After the pass no lock of libmosquitto is held.
#pragma once

#include <mosquitto.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lapi/com/message.h"
#include "lapi/time/datetime.h"

namespace ecu::lapi::com {

class Inbox {
 public:
  // Keeps a copy of `raw`, stamped with the time it arrived.
  void received(const mosquitto_message& raw) {
    if (m_count == m_items.size()) {
      m_items.emplace_back();
    }
    Item& item = m_items[m_count++];
    item.topic.assign(raw.topic != nullptr ? raw.topic : "");
    Message& msg = item.msg;
    msg.timestamp_ns = DateTime::time_since_boot_ns();
    msg.timestamp_set = true;
    msg.qos = static_cast<std::uint8_t>(raw.qos);
    msg.payload.clear();
    if (raw.payload != nullptr && raw.payloadlen > 0) {
      const auto* bytes = static_cast<const std::uint8_t*>(raw.payload);
      msg.payload.assign(bytes, bytes + raw.payloadlen);
    }
  }

  // Hands every kept message to `deliver(topic, msg)` in the order they
  // arrived, then forgets them. The storage of a few stays for the next pass.
  template <typename Deliver>
  void drain(Deliver&& deliver) {
    for (std::size_t i = 0; i < m_count; ++i) {
      deliver(m_items[i].topic, m_items[i].msg);
    }
    m_count = 0;
    if (m_items.size() > kKept) {
      m_items.resize(kKept);
      m_items.shrink_to_fit();
    }
  }

 private:
  struct Item {
    std::string topic;
    Message msg;
  };
  static constexpr std::size_t kKept = 4;
  std::vector<Item> m_items;
  std::size_t m_count = 0;
};

}  // namespace ecu::lapi::com
