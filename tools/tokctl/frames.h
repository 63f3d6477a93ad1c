// What tokctl puts on the broker and how it reads what it sees there.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "com/protocol.h"
#include "lapi/com/message.h"

namespace tokctl {

// "NAME=HEX:STATUS", e.g. "Speed=051a00ff:0": a name, at least four data
// bytes as pairs of hex digits, a decimal status. False with a reason.
[[nodiscard]] bool parse_signal(const std::string& word, tokard::protocol::SignalValue& out,
                                std::string& error);

// What a watch line says about a message, by the kind of its topic:
//   system/tokard/request   "acquire rt/ECU1 by demo"
//   system/tokard/wait      "wait for rt/ECU1 by demo", "leave the line of rt/ECU1 by demo"
//   app/<client>/pgn/response  "acquired rt/ECU1"
//   rt/..., rttx/...        "EngineState valid Speed=051a00ff:0 Torque=00000000:0"
//   system/tokard/state     "tokard online"
//   system/tokard/status/E  "E held by A for 3 s, generation 1, topics rt/E rttx/E"
// "undecodable frame (...)" for a frame that does not decode, and the size
// and first bytes in hex for a message on any other topic. A status's time
// held counts up to `now_unix_ms`.
std::string describe(const std::string& topic, const ecu::lapi::com::Message& msg,
                     std::uint64_t now_unix_ms);

// One line of `watch`: the local time to the millisecond, the topic and what
// describe() says: "14:41:34.604 app/bench/pgn/response acquired rt/ECU1".
std::string watch_line(const std::string& topic, const ecu::lapi::com::Message& msg,
                       std::chrono::system_clock::time_point now);

// Milliseconds since the epoch, as tokard stamps its statuses.
std::uint64_t unix_ms(std::chrono::system_clock::time_point time);

}  // namespace tokctl
