// Any bytes as the topic of a token request: ecu_from_topic must accept
// exactly the RT topics and name the ECU by their trimmed last segment.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "utils/topic.h"

namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string topic(reinterpret_cast<const char*>(data), size);
  const auto result = tokard::utils::ecu_from_topic(topic);

  const bool rt = topic.rfind("rt/", 0) == 0 || topic.rfind("rttx/", 0) == 0;
  if (!rt) {
    TOKARD_FUZZ_CHECK(!result.ok && result.value.empty() && result.error == "Not an RT topic!");
    return 0;
  }
  const std::string part = topic.substr(topic.rfind('/') + 1);
  if (part.empty()) {
    TOKARD_FUZZ_CHECK(!result.ok && result.value.empty() &&
                      result.error == "Unable to find ECU part of topic!");
    return 0;
  }
  TOKARD_FUZZ_CHECK(result.ok && result.error.empty());
  const std::string& name = result.value;
  TOKARD_FUZZ_CHECK(name.find('/') == std::string::npos);
  if (!name.empty()) {
    TOKARD_FUZZ_CHECK(!is_space(name.front()) && !is_space(name.back()));
  }
  // Only white space was cut, and only at the ends.
  const auto at = part.find(name);
  TOKARD_FUZZ_CHECK(at != std::string::npos);
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (i < at || i >= at + name.size()) {
      TOKARD_FUZZ_CHECK(is_space(part[i]));
    }
  }
  return 0;
}
