// What tokard and its clients say to each other on the internal broker: the
// topics, and the frames of token requests, answers and signal groups.
// Everything that names a topic or builds a frame takes it from here.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "ecu/pb/rt.pb.h"
#include "lapi/com/message.h"

namespace tokard::protocol {

using ecu::lapi::com::Message;
using Request = ecu::lapi::pb::PgnRequestTokenRequest;
using Response = ecu::lapi::pb::PgnRequestTokenResponse;
using SignalGroupBody = ecu::lapi::pb::RtSignalGroup;
using FrameError = ecu::lapi::com::err::PbInternalDeserializationError;
template <typename Body>
using Decoded = ecu::lapi::com::Outcome<Body, FrameError>;

// Every message of the token protocol goes with MQTT QoS 1.
inline constexpr int kQos = 1;

// A holder that goes longer than this without a grant or renewal may lose
// its token to another client.
inline constexpr std::chrono::milliseconds kTokenTimeout{10000};

// Every client's token requests.
inline constexpr const char* kRequestTopic = "system/tokard/request";

// Requests to wait in line for a token: an acquire joins the ECU's line (or
// is granted at once), a release leaves it. Answered like acquires.
inline constexpr const char* kWaitTopic = "system/tokard/wait";
// At most this many clients wait in one ECU's line.
inline constexpr std::size_t kMaxWaiters = 64;

// The answers to one client's acquires: "app/<client>/pgn/response".
inline std::string response_topic(const std::string& client) {
  std::string topic;
  topic.reserve(4 + client.size() + 13);
  return topic.append("app/").append(client).append("/pgn/response");
}
inline constexpr const char* kResponseFilter = "app/+/pgn/response";
inline bool is_response_topic(const std::string& topic) {
  constexpr std::string_view kHead = "app/", kTail = "/pgn/response";
  return topic.size() > kHead.size() + kTail.size() && topic.compare(0, kHead.size(), kHead) == 0 &&
         topic.compare(topic.size() - kTail.size(), kTail.size(), kTail) == 0;
}

// Real-time topics name their ECU in the last segment: "rt/.../ECU" carries
// what the ECU receives, "rttx/.../ECU" what it transmits.
inline constexpr std::string_view kRtPrefix = "rt/";
inline constexpr std::string_view kTxPrefix = "rttx/";

inline bool starts_with(const std::string& text, std::string_view prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

inline bool is_rt_topic(const std::string& topic) {
  return starts_with(topic, kRtPrefix) || starts_with(topic, kTxPrefix);
}

// The transmit topic followed beside a request topic: "rttx/" and the topic
// without its first three characters, whatever they are, so "rttx/ECU1"
// pairs with "rttx/x/ECU1". That pairing is deliberate.
inline std::string tx_topic(const std::string& topic) {
  return std::string(kTxPrefix) + topic.substr(kRtPrefix.size());
}

// Signal groups are defined for receive topics only; traffic on "rttx/X" is
// judged by the definition of "rt/X". Empty for any other topic.
inline std::string definition_topic_of_tx(const std::string& topic) {
  if (!starts_with(topic, kTxPrefix)) {
    return {};
  }
  return std::string(kRtPrefix) + topic.substr(kTxPrefix.size());
}

// tokard's own state, beside the token protocol.
inline constexpr const char* kStateTopic = "system/tokard/state";  // retained
inline constexpr const char* kOnline = "online";
inline constexpr const char* kOffline = "offline";
inline constexpr std::string_view kStatusPrefix = "system/tokard/status/";
inline constexpr const char* kStatusFilter = "system/tokard/status/+";
inline std::string status_topic(const std::string& ecu) { return std::string(kStatusPrefix) + ecu; }
// Where tokard marks the end of its read-back of retained statuses.
inline constexpr const char* kReadbackTopic = "system/tokard/readback";

// A frame around `body`; an empty payload when the body cannot be encoded.
template <typename Body>
Message frame(const Body& body) {
  ecu::lapi::com::PbInternalMessageAdapter<Body> adapter;
  return adapter.serialize(body).second;
}

template <typename Body>
Decoded<Body> read(const Message& msg) {
  ecu::lapi::com::PbInternalMessageAdapter<Body> adapter;
  return adapter.deserialize(msg);
}

inline Message request_frame(Request::Action action, const std::string& rt_topic,
                             const std::string& client) {
  Request request;
  request.set_action(action);
  request.set_request_topic(rt_topic);
  request.set_client_name(client);
  return frame(request);
}

inline Message response_frame(Response::Result result, const std::string& rt_topic) {
  Response response;
  response.set_result(result);
  response.set_request_topic(rt_topic);
  return frame(response);
}

// The words clients print for an answer ("acquired", "busy", "no ECU"), and
// for a frame that does not decode; nullptr for a value no tokard sends.
const char* to_word(Response::Result result) noexcept;
const char* to_word(FrameError error) noexcept;

struct SignalValue {
  std::string name;
  std::string data;  // raw bytes
  std::uint32_t status = 0;
};

inline Message group_frame(const std::string& group, const std::vector<SignalValue>& signals) {
  SignalGroupBody body;
  body.set_name(group);
  for (const auto& value : signals) {
    auto* signal = body.add_signals();
    signal->set_name(value.name);
    signal->set_data(value.data);
    signal->set_status(value.status);
  }
  return frame(body);
}

}  // namespace tokard::protocol
