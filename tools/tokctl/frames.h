// What tokctl puts on the broker and how it reads what it sees there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lapi/com/message.h"

namespace tokctl {

struct SignalSpec {
  std::string name;
  std::string data;  // raw bytes
  std::uint32_t status = 0;
};

// "NAME=HEX:STATUS", e.g. "Speed=051a00ff:0": a name, at least four data
// bytes as pairs of hex digits, a decimal status. False with a reason.
bool parse_signal(const std::string& word, SignalSpec& out, std::string& error);

// A framed ecu.lapi.pb.RtSignalGroup; false only if it cannot be encoded.
bool group_frame(const std::string& group, const std::vector<SignalSpec>& signals,
                 ecu::lapi::com::Message& out);

// What a watch line says about a message, by the kind of its topic:
//   system/tokard/request   "acquire rt/ECU1 by demo"
//   app/<client>/pgn/response  "acquired rt/ECU1"
//   rt/..., rttx/...        "EngineState valid Speed=051a00ff:0 Torque=00000000:0"
// "undecodable frame (...)" for a frame that does not decode, and the size
// and first bytes in hex for a message on any other topic.
std::string describe(const std::string& topic, const ecu::lapi::com::Message& msg);

}  // namespace tokctl
