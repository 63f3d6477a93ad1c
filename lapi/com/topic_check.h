// MQTT topic names and filters (MQTT 3.1.1, 4.7), checked the way libmosquitto
// and the broker check them. Pure functions: no handle, no state.
#pragma once

#include <string>

namespace ecu::lapi::com {

// Non-empty UTF-8 without NUL characters.
[[nodiscard]] bool is_clean_utf8(const std::string& text);
// A name a message can be published on: clean, no wildcards.
[[nodiscard]] bool is_topic_name(const std::string& topic);
// A filter a client can subscribe to: clean, wildcards only as whole levels.
[[nodiscard]] bool is_topic_filter(const std::string& filter);
[[nodiscard]] bool is_wildcard(const std::string& filter);
// Whether a message on `topic` reaches a subscription to `filter`; a
// wildcard at the start never matches a topic starting with '$'.
[[nodiscard]] bool topic_matches(const std::string& filter, const std::string& topic);

}  // namespace ecu::lapi::com
