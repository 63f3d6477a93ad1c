// Any bytes as the signal-definitions file; whatever loads is then used to
// unpack a well-formed frame on each topic the definitions may name.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "lapi/rt/signal_adapter.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tokard::fuzz;
  // Loaded first so that a failed load must also drop earlier definitions.
  ecu::lapi::rt::SignalAdapter adapter;
  std::istringstream fixed(kSignalDefinitions);
  TOKARD_FUZZ_CHECK(adapter.load(fixed, "fuzz definitions"));
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  const bool loaded = adapter.load(input, "fuzz input");
  if (!loaded) {
    TOKARD_FUZZ_CHECK(adapter.group_count() == 0);
    return 0;
  }
  for (const auto& def : defined_groups()) {
    ecu::lapi::com::Message msg;
    msg.payload = frame(group(def, {0, 1}));
    const auto result = adapter.unpack(def.topic, msg);
    if (result.success) {
      TOKARD_FUZZ_CHECK(result.group.name() == def.name);
      TOKARD_FUZZ_CHECK(result.group.signals().size() == def.signals.size());
    }
  }
  return 0;
}
