// Any bytes as a real-time frame on one of a few topics (the first byte
// picks it): unpack either refuses the frame or returns exactly the defined
// group, every signal carrying at least four data bytes.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "lapi/rt/signal_adapter.h"

namespace {

ecu::lapi::rt::SignalAdapter* g_adapter = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  g_adapter = new ecu::lapi::rt::SignalAdapter;
  std::istringstream definitions(tokard::fuzz::kSignalDefinitions);
  if (!g_adapter->load(definitions, "fuzz definitions")) {
    tokard::fuzz::violated("fixed signal definitions do not load");
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using tokard::fuzz::defined_groups;
  if (size == 0) {
    return 0;
  }
  // One choice past the defined topics: a topic without a definition.
  const std::size_t choice = data[0] % (defined_groups().size() + 1);
  const bool defined = choice < defined_groups().size();
  const std::string topic = defined ? defined_groups()[choice].topic : "rt/ECU9";

  const auto result = g_adapter->unpack(topic, tokard::fuzz::to_message(data + 1, size - 1));
  if (!result.success) {
    TOKARD_FUZZ_CHECK(result.group.name().empty() && result.group.signals().empty());
    return 0;
  }
  TOKARD_FUZZ_CHECK(defined);
  const auto& def = defined_groups()[choice];
  TOKARD_FUZZ_CHECK(result.group.name() == def.name);
  TOKARD_FUZZ_CHECK(result.group.signals().size() == def.signals.size());
  bool all_clear = true;
  for (std::size_t i = 0; i < def.signals.size(); ++i) {
    const auto& signal = result.group.signals()[i];
    TOKARD_FUZZ_CHECK(signal.name() == def.signals[i]);
    TOKARD_FUZZ_CHECK(signal.data().size() >= 4);
    all_clear = all_clear && signal.status() == 0;
  }
  TOKARD_FUZZ_CHECK(result.group.is_valid() == all_clear);
  return 0;
}
