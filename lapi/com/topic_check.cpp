#include "lapi/com/topic_check.h"

#include <mosquitto.h>

namespace ecu::lapi::com {

bool is_clean_utf8(const std::string& text) {
  return !text.empty() && text.find('\0') == std::string::npos &&
         mosquitto_validate_utf8(text.c_str(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

bool is_topic_name(const std::string& topic) {
  return is_clean_utf8(topic) && mosquitto_pub_topic_check(topic.c_str()) == MOSQ_ERR_SUCCESS;
}

bool is_topic_filter(const std::string& filter) {
  return is_clean_utf8(filter) && mosquitto_sub_topic_check(filter.c_str()) == MOSQ_ERR_SUCCESS;
}

bool is_wildcard(const std::string& filter) {
  return filter.find_first_of("+#") != std::string::npos;
}

bool topic_matches(const std::string& filter, const std::string& topic) {
  bool matches = false;
  return mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &matches) == MOSQ_ERR_SUCCESS &&
         matches;
}

}  // namespace ecu::lapi::com
