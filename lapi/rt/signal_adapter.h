#pragma once

#include <iosfwd>
#include <string>
#include <unordered_map>
#include <vector>

#include "lapi/com/message.h"
#include "lapi/rt/signal.h"

namespace ecu::lapi::rt {

struct UnpackResult {
  bool success = false;
  SignalGroup group;  // empty unless success
};

// Decodes real-time frames (the internal frame header, then an
// ecu.lapi.pb.RtSignalGroup body) into signal groups, checked against the
// group defined for the frame's topic.
//
// Definitions are JSON:
//   {"groups": [{"topic": "rt/ECU1", "name": "EngineState",
//                "signals": ["Speed", "Torque"]}]}
//
// Loading and unpacking are not synchronised with each other: load before the
// transport delivers, unpack from any number of threads afterwards.
class SignalAdapter {
 public:
  static constexpr const char* kPathVariable = "LAPI_RT_SIGNALS";
  static constexpr const char* kDefaultPath = "/etc/kesto/rt_signals.json";

  // The process-wide adapter; its definitions are loaded from
  // definitions_path() on the first call.
  static SignalAdapter& instance();
  // $LAPI_RT_SIGNALS if set and not empty, else kDefaultPath.
  static std::string definitions_path();

  // Starts with no definitions.
  SignalAdapter() = default;
  virtual ~SignalAdapter() = default;
  SignalAdapter(const SignalAdapter&) = delete;
  SignalAdapter& operator=(const SignalAdapter&) = delete;

  // Replaces all definitions. A file that cannot be read or is malformed
  // (bad JSON, wrong types, a topic defined twice) leaves nothing defined,
  // logs one ERROR on "lapi.rt" and returns false.
  bool load(const std::string& path);
  // As above, from a stream; `origin` names it in the log.
  bool load(std::istream& in, const std::string& origin);

  // Succeeds when `topic` is defined, the frame passes the header checks, its
  // body parses, and the group's name, its signals' names and their order
  // match the definition, every signal carrying at least four data bytes.
  // A failure logs a DEBUG line on "lapi.rt" naming the reason: the caller
  // reports the dropped frame, and a flood of bad frames must not reach the
  // log at the default level.
  UnpackResult unpack(const std::string& topic, const com::Message& message) const;

  std::size_t group_count() const { return m_groups.size(); }
  // The name of the group defined for `topic`; empty when there is none.
  std::string group_name(const std::string& topic) const {
    const auto found = m_groups.find(topic);
    return found == m_groups.end() ? std::string() : found->second.name;
  }

 private:
  struct Definition {
    std::string name;
    std::vector<std::string> signals;
  };

  std::unordered_map<std::string, Definition> m_groups;  // by topic
};

}  // namespace ecu::lapi::rt
