#include "main/command_line.h"

#include <getopt.h>

#include <cstdlib>
#include <iostream>

#include "lapi/logging/logging.h"
#include "main/build_info.h"

namespace tokard {

bool opt_loglevel_set = false;
std::string opt_loglevel;
bool opt_log_stdout = false;
std::string opt_host;
std::string opt_port;

namespace {

// "log-stdout" takes an argument although -L takes none: --log-stdout
// swallows the next word. Existing command lines depend on it; keep it.
const option kOptions[] = {
    {"version", no_argument, nullptr, 'V'},
    {"help", no_argument, nullptr, 'h'},
    {"host", required_argument, nullptr, 'H'},
    {"port", required_argument, nullptr, 'p'},
    {"loglevel", required_argument, nullptr, 'l'},
    {"log-stdout", required_argument, nullptr, 'L'},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

int parse_opts(int argc, char** argv) {
  for (;;) {
    int index = 0;
    const int opt = getopt_long(argc, argv, "l:Lp:H:hV", kOptions, &index);
    switch (opt) {
      case -1:
        return 1;
      case 'H':
        opt_host = optarg;
        break;
      case 'p':
        opt_port = optarg;
        break;
      case 'l':
        opt_loglevel_set = true;
        opt_loglevel = optarg;
        break;
      case 'L':
        opt_log_stdout = true;
        ecu::lapi::logging::set_log_mode(ecu::lapi::logging::STDOUT);
        break;
      case 'V':
        version();
        std::exit(0);
      default:
        return 0;
    }
  }
}

void version() {
  std::cerr << "tokard"
            << ": " << build_info << std::endl;
}

void usage() {
  version();
  std::cerr << "\n"
            << "USAGE: "
            << "tokard"
            << " [OPTIONS]\n"
            << "\n"
            << "OPTIONS:"
            << "\n"
            << "  -H, --host HOST           Hostname (or IP) of internal MQTT broker\n"
            << "  -p, --port PORT           Port of internal MQTT broker\n"
            << "  -l, --loglevel            Enforces the loglevel during execution.\n"
            << "                            Possibles values: EMERG, ALERT, CRITICAL, ERROR, "
               "WARNING, NOTICE, INFO, DEBUG\n"
            << "                            Default: ";
  const char* default_level = ecu::lapi::logging::get_default_log_level_name();
  if (default_level == nullptr) {
    // What a stream does with a null string: nothing more gets written.
    std::cerr.setstate(std::ios_base::badbit);
  } else {
    std::cerr << default_level;
  }
  std::cerr << "\n\n"
            << "  -L, --log-stdout          Set logging to STDOUT instead of syslog.\n\n"
            << "  -h, --help                Show this help"
            << "\n\n"
            << "  -V, --version             Show version"
            << "\n"
            << std::endl;
}

}  // namespace tokard
