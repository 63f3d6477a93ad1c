// tokctl: tokens, real-time signal groups and a view of the broker, from a
// shell. "tokctl --help" lists the commands.
#include <iostream>

#include "command_line.h"
#include "commands.h"
#include "lapi/logging/logging.h"

int main(int argc, char** argv) {
  const tokctl::Parsed parsed = tokctl::parse_command_line(argc, argv);
  if (!parsed.ok) {
    std::cerr << "tokctl: " << parsed.error << "\nTry 'tokctl --help'." << std::endl;
    return tokctl::kUsageOrConnection;
  }
  const tokctl::Options& options = parsed.options;
  if (options.help) {
    std::cout << tokctl::help_text();
    return 0;
  }
  if (options.version) {
    std::cout << tokctl::version_text();
    return 0;
  }

  // The platform layer's warnings (a broker that refuses) belong on the
  // terminal, not in the system log under tokard's name.
  using namespace ecu::lapi::logging;
  set_log_mode(STDERR);
  if (options.verbose) {
    configure_logging("DEBUG");
    enable("lapi", true);
  }
  return tokctl::run_command(options);
}
