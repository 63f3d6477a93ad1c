// Any bytes as the configuration file: read, then verified as start-up does.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "lapi/config/configuration.h"

namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

bool trimmed(const std::string& text) {
  return text.empty() || (!is_space(text.front()) && !is_space(text.back()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ecu::lapi::config::Configuration;
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  auto config = std::make_unique<Configuration>();
  ecu::lapi::config::set_config_from_input(config, input);
  (void)config->verify();

  for (const char* key : {"host", "port", "client_name", "logmode", "loglevel"}) {
    TOKARD_FUZZ_CHECK(trimmed(config->get(key)));
  }
  return 0;
}
