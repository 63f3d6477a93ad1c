// Any bytes as a real-time frame on a topic the first byte picks: unpack
// refuses it or returns exactly the defined group, and an ECU record that
// receives it accepts requests unless the group is valid.
#include "ecu/ecu.h"
#include "fuzz_support.h"

namespace {
const char* const kTopics[] = {"rt/ECU1", "rt/ECU2", "rt/bus0/ECU3", "rttx/ECU1", "rt/ECU9"};
const std::size_t kSignalCounts[] = {2, 3, 0, 2};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  tokard::fuzz::signals();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::size_t choice = data[0] % 5;
  const std::string topic = kTopics[choice];
  const auto msg = tokard::fuzz::to_message(data + 1, size - 1);
  // Transmit traffic is judged by the definition of its receive topic.
  const auto result = tokard::fuzz::signals().unpack(choice == 3 ? "rt/ECU1" : topic, msg);
  tokard::Ecu ecu("E");
  (void)ecu.acquire_token("holder");
  ecu.message(topic, msg);
  if (!result.success) {
    TOKARD_FUZZ_CHECK(result.group.signals().empty() && !ecu.request_active() &&
                      ecu.holder() == "holder");
    return 0;
  }
  TOKARD_FUZZ_CHECK(choice < 4);
  TOKARD_FUZZ_CHECK(result.group.signals().size() == kSignalCounts[choice]);
  bool clear = true;
  for (const auto& signal : result.group.signals()) {
    TOKARD_FUZZ_CHECK(signal.data().size() >= 4);
    clear = clear && signal.status() == 0;
  }
  TOKARD_FUZZ_CHECK(result.group.is_valid() == clear && ecu.request_active() == clear);
  TOKARD_FUZZ_CHECK(ecu.holder() == (clear ? "holder" : ""));
  return 0;
}
