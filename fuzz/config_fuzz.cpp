// Any bytes as the configuration file: read, then verified as start-up does;
// every value comes out trimmed.
#include <cctype>

#include "fuzz_support.h"
#include "lapi/config/configuration.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  ecu::lapi::config::set_config_from_input(config, input);
  (void)config->verify();
  for (const char* key : {"host", "port", "client_name", "logmode", "loglevel"}) {
    const std::string& value = config->get(key);
    TOKARD_FUZZ_CHECK(value.empty() || (!std::isspace(static_cast<unsigned char>(value.front())) &&
                                        !std::isspace(static_cast<unsigned char>(value.back()))));
  }
  return 0;
}
