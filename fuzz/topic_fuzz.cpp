// Any bytes as a request topic: ecu_from_topic accepts exactly the RT topics
// and names the ECU by their last segment with white space cut at the ends.
#include <cctype>

#include "fuzz_support.h"
#include "utils/topic.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string topic(reinterpret_cast<const char*>(data), size);
  const auto result = tokard::utils::ecu_from_topic(topic);
  const std::string part =
      topic.substr(topic.rfind('/') == std::string::npos ? 0 : topic.rfind('/') + 1);
  if (!tokard::protocol::is_rt_topic(topic) || part.empty()) {
    TOKARD_FUZZ_CHECK(!result.ok && result.value.empty() && !result.error.empty());
    return 0;
  }
  TOKARD_FUZZ_CHECK(result.ok && result.error.empty());
  const auto at = part.find(result.value);
  TOKARD_FUZZ_CHECK(at != std::string::npos);
  for (std::size_t i = 0; i < part.size(); ++i) {
    const bool cut = i < at || i >= at + result.value.size();
    TOKARD_FUZZ_CHECK(!cut || std::isspace(static_cast<unsigned char>(part[i])));
  }
  return 0;
}
