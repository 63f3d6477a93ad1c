// Shared by the fuzz targets and the seed generator: quiet logging, a fixed
// set of signal definitions, and framing of request and real-time bodies.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "ecu/pb/rt.pb.h"
#include "lapi/com/message.h"
#include "lapi/logging/logging.h"

namespace tokard::fuzz {

// Every log statement still runs, at DEBUG with every module enabled, so the
// formatting of hostile text is fuzzed too. The lines go to standard output,
// pointed at /dev/null unless TOKARD_FUZZ_LOG is set; libFuzzer and the
// sanitizers report on standard error, which stays readable.
inline void quiet_logging() {
  namespace logging = ecu::lapi::logging;
  logging::set_log_mode(logging::STDOUT);
  logging::configure_logging("DEBUG");
  logging::enable("tokard", true);
  logging::enable("lapi", true);
  if (std::getenv("TOKARD_FUZZ_LOG") == nullptr) {
    std::fflush(stdout);
    const int null_fd = ::open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
      ::dup2(null_fd, STDOUT_FILENO);
      ::close(null_fd);
    }
  }
}

// Small on purpose: a handful of groups the mutations can hit, one of them
// without signals (always valid) and one on a multi-segment topic.
constexpr const char* kSignalDefinitions = R"({"groups": [
  {"topic": "rt/ECU1", "name": "EngineState", "signals": ["Speed", "Torque"]},
  {"topic": "rt/ECU2", "name": "BrakeState", "signals": ["Pressure", "PadWear", "Temperature"]},
  {"topic": "rt/bus0/ECU3", "name": "Heartbeat", "signals": []}
]})";

struct GroupSpec {
  const char* topic;
  const char* name;
  std::vector<std::string> signals;
};

inline const std::vector<GroupSpec>& defined_groups() {
  static const std::vector<GroupSpec> groups = {
      {"rt/ECU1", "EngineState", {"Speed", "Torque"}},
      {"rt/ECU2", "BrakeState", {"Pressure", "PadWear", "Temperature"}},
      {"rt/bus0/ECU3", "Heartbeat", {}},
  };
  return groups;
}

inline ecu::lapi::com::Message to_message(const std::uint8_t* data, std::size_t size) {
  ecu::lapi::com::Message msg;
  msg.payload.assign(data, data + size);
  return msg;
}

template <typename Body>
std::vector<std::uint8_t> frame(const Body& body) {
  return ecu::lapi::com::PbInternalMessageAdapter<Body>().serialize(body).second.payload;
}

inline ecu::lapi::pb::PgnRequestTokenRequest request(
    ecu::lapi::pb::PgnRequestTokenRequest::Action action, const std::string& topic,
    const std::string& client) {
  ecu::lapi::pb::PgnRequestTokenRequest body;
  body.set_action(action);
  body.set_request_topic(topic);
  body.set_client_name(client);
  return body;
}

// The group defined for `def` with every signal's status taken from
// `statuses` (0 when it runs short) and four data bytes each.
inline ecu::lapi::pb::RtSignalGroup group(const GroupSpec& def,
                                          const std::vector<std::uint32_t>& statuses) {
  ecu::lapi::pb::RtSignalGroup body;
  body.set_name(def.name);
  for (std::size_t i = 0; i < def.signals.size(); ++i) {
    auto* signal = body.add_signals();
    signal->set_name(def.signals[i]);
    signal->set_data(std::string("\x05\x1a\x00\xff", 4));
    signal->set_status(i < statuses.size() ? statuses[i] : 0);
  }
  return body;
}

// Aborts, so libFuzzer saves the input as a crash reproducer.
[[noreturn]] inline void violated(const char* what) {
  std::fprintf(stderr, "tokard fuzz check failed: %s\n", what);
  std::abort();
}

#define TOKARD_FUZZ_CHECK(condition)        \
  do {                                      \
    if (!(condition)) {                     \
      ::tokard::fuzz::violated(#condition); \
    }                                       \
  } while (false)

}  // namespace tokard::fuzz
