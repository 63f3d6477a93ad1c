#include <signal.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "daemon/tokard_daemon.h"
#include "lapi/com/transport.h"
#include "lapi/config/configuration.h"
#include "lapi/logging/logging.h"
#include "main/build_info.h"
#include "main/command_line.h"

#ifndef TOKARD_CONFIG_FILE
#error "TOKARD_CONFIG_FILE must name the configuration file"
#endif

namespace {

namespace logging = ecu::lapi::logging;

const logging::LogModulePtr g_log = logging::module("tokard.main");

constexpr int kHandledSignals[] = {SIGINT, SIGTERM};

// The "logmode" value of the configuration, in any letter case. Unknown
// names leave the mode as it is (syslog unless -L was given).
void apply_log_mode(std::string& mode) {
  for (char& c : mode) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  if (mode == "STDOUT") {
    logging::set_log_mode(logging::STDOUT);
  } else if (mode == "STDERR") {
    logging::set_log_mode(logging::STDERR);
  } else if (mode == "SYSLOG") {
    logging::set_log_mode(logging::SYSLOG);
  } else {
    LAPI_LOG(NOTICE, g_log) << "logmode from config '" << mode << "' not recognized";
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::cout << "tokard"
            << ": " << tokard::build_info << std::endl;
  if (tokard::parse_opts(argc, argv) == 0) {
    tokard::usage();
    std::exit(1);
  }
  logging::configure_logging(tokard::opt_loglevel);
  logging::enable("tokard", true);

  LAPI_LOG(DEBUG, g_log) << "Register unix signal handler";
  for (const int sig : kHandledSignals) {
    signal(sig, tokard::on_signal);
  }

  // Precedence, lowest first: built-in defaults, the file, the options.
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  config->set_default("client_name", "tokard");
  // $TOKARD_CONFIG, when set and not empty, names another file.
  const char* config_path = std::getenv("TOKARD_CONFIG");
  std::ifstream file(config_path != nullptr && *config_path != '\0' ? config_path
                                                                    : TOKARD_CONFIG_FILE);
  if (file.is_open()) {
    ecu::lapi::config::set_config_from_input(config, file);
    file.close();
  } else {
    LAPI_LOG(DEBUG, g_log) << "Using default configuration";
  }
  if (!tokard::opt_host.empty()) {
    config->set("host", tokard::opt_host);
  }
  if (!tokard::opt_port.empty()) {
    config->set("port", tokard::opt_port);
  }

  std::string log_mode = config->get("logmode");
  if (!log_mode.empty() && !tokard::opt_log_stdout) {
    apply_log_mode(log_mode);
  }
  // -l, even with an empty name, keeps the file's level out.
  const std::string& log_level = config->get("loglevel");
  if (!log_level.empty() && !tokard::opt_loglevel_set) {
    logging::configure_logging(log_level);
  } else if (!tokard::opt_loglevel.empty()) {
    logging::configure_logging(tokard::opt_loglevel);
  }

  if (!config->verify()) {
    LAPI_LOG(ERROR, g_log) << "Unable to verify Configuration.";
    std::exit(1);
  }

  std::shared_ptr<ecu::lapi::com::ITransportClient> client =
      ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
  tokard::TokarDaemon daemon(config, client);
  *tokard::instance_cell() = &daemon;

  int status = 1;
  if (daemon.init()) {
    daemon.run();
    status = 0;
  } else {
    LAPI_LOG(ERROR, g_log) << "Unable to initialize daemon!";
    status = 1;
  }
  return status;
}
