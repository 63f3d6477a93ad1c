#include "utils/topic.h"

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
  if (topic.compare(0, 3, "rt/") != 0 && topic.compare(0, 5, "rttx/") != 0) {
    return fail("Not an RT topic!");
  }
  const auto slash = topic.rfind('/');
  if (slash == std::string::npos || slash + 1 == topic.size()) {
    return fail("Unable to find ECU part of topic!");
  }
  std::string name = topic.substr(slash + 1);
  name.erase(std::find_if_not(name.rbegin(), name.rend(), is_space).base(), name.end());
  name.erase(name.begin(), std::find_if_not(name.begin(), name.end(), is_space));

  TopicOutcome out;
  out.ok = true;
  out.value = std::move(name);
  return out;
}

}  // namespace tokard::utils
