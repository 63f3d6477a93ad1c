#include "utils/topic.h"

#include "com/protocol.h"

#include <algorithm>
#include <cctype>

namespace tokard::utils {
namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

TopicOutcome fail(const char* why) {
  TopicOutcome out;
  out.error = why;
  return out;
}

}  // namespace

TopicOutcome ecu_from_topic(const std::string& topic) {
  if (!protocol::is_rt_topic(topic)) {
    return fail("Not an RT topic!");
  }
  const auto slash = topic.rfind('/');
  if (slash == std::string::npos || slash + 1 == topic.size()) {
    return fail("Unable to find ECU part of topic!");
  }
  std::size_t begin = slash + 1;
  std::size_t end = topic.size();
  while (end > begin && is_space(topic[end - 1])) {
    --end;
  }
  while (begin < end && is_space(topic[begin])) {
    ++begin;
  }

  TopicOutcome out;
  out.ok = true;
  out.value.assign(topic, begin, end - begin);
  return out;
}

}  // namespace tokard::utils
