// What tokctl puts on the broker and how it reads what it sees there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "com/protocol.h"
#include "lapi/com/message.h"

namespace tokctl {

using SignalSpec = tokard::protocol::SignalValue;

// "NAME=HEX:STATUS", e.g. "Speed=051a00ff:0": a name, at least four data
// bytes as pairs of hex digits, a decimal status. False with a reason.
bool parse_signal(const std::string& word, SignalSpec& out, std::string& error);

// What a watch line says about a message, by the kind of its topic:
//   system/tokard/request   "acquire rt/ECU1 by demo"
//   app/<client>/pgn/response  "acquired rt/ECU1"
//   rt/..., rttx/...        "EngineState valid Speed=051a00ff:0 Torque=00000000:0"
//   system/tokard/state     "tokard online"
//   system/tokard/status/E  "E held by A for 3 s, generation 1, topics rt/E rttx/E"
// "undecodable frame (...)" for a frame that does not decode, and the size
// and first bytes in hex for a message on any other topic.
std::string describe(const std::string& topic, const ecu::lapi::com::Message& msg);

}  // namespace tokctl
