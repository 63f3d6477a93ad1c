// Any bytes as the signal definitions file: loaded whole or not at all.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Loaded first, so that a failed load must also drop earlier definitions.
  ecu::lapi::rt::SignalAdapter adapter;
  std::istringstream fixed(tokard::fuzz::kSignalDefinitions);
  TOKARD_FUZZ_CHECK(adapter.load(fixed, "fuzz definitions"));
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  const bool loaded = adapter.load(input, "fuzz input");
  TOKARD_FUZZ_CHECK(loaded || adapter.group_count() == 0);
  (void)adapter.unpack("rt/ECU1",
                       tokard::protocol::group_frame("EngineState", {{"Speed", "abcd", 0}}));
  return 0;
}
