// Shared by the fuzz targets and the seed generator: quiet logging, one set
// of signal definitions, and the check that makes libFuzzer keep the input.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "com/protocol.h"
#include "lapi/logging/logging.h"
#include "lapi/rt/signal_adapter.h"

namespace tokard::fuzz {

// Every log statement still runs, at DEBUG with every module enabled, so
// hostile text is formatted too; the lines go to /dev/null unless
// TOKARD_FUZZ_LOG is set. libFuzzer reports on standard error.
inline void quiet_logging() {
  namespace logging = ecu::lapi::logging;
  logging::set_log_mode(logging::STDOUT);
  logging::configure_logging("DEBUG");
  logging::enable("tokard", true);
  logging::enable("lapi", true);
  if (std::getenv("TOKARD_FUZZ_LOG") == nullptr) {
    std::fflush(stdout);
    const int null_fd = ::open("/dev/null", O_WRONLY);
    ::dup2(null_fd, STDOUT_FILENO);
    ::close(null_fd);
  }
}

// Small on purpose: groups the mutations can hit, one without signals
// (always valid), one on a multi-segment topic.
inline constexpr const char* kSignalDefinitions = R"({"groups": [
  {"topic": "rt/ECU1", "name": "EngineState", "signals": ["Speed", "Torque"]},
  {"topic": "rt/ECU2", "name": "BrakeState", "signals": ["Pressure", "PadWear", "Temperature"]},
  {"topic": "rt/bus0/ECU3", "name": "Heartbeat", "signals": []}]})";

// The process-wide adapter, loaded with kSignalDefinitions.
inline ecu::lapi::rt::SignalAdapter& signals() {
  std::istringstream in(kSignalDefinitions);
  auto& adapter = ecu::lapi::rt::SignalAdapter::instance();
  if (adapter.group_count() == 0) {
    adapter.load(in, "fuzz definitions");
  }
  return adapter;
}

inline protocol::Message to_message(const std::uint8_t* data, std::size_t size) {
  protocol::Message msg;
  msg.payload.assign(data, data + size);
  return msg;
}

}  // namespace tokard::fuzz

// Aborts, so libFuzzer saves the input as a crash reproducer.
#define TOKARD_FUZZ_CHECK(condition)                                      \
  do {                                                                    \
    if (!(condition)) {                                                   \
      std::fprintf(stderr, "tokard fuzz check failed: %s\n", #condition); \
      std::abort();                                                       \
    }                                                                     \
  } while (false)
