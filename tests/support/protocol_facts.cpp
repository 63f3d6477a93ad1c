// Prints the facts of the protocol library as one JSON object, for the
// Python client's tests to hold its own constants against.
#include <cstdio>
#include <string>

#include "com/protocol.h"

int main() {
  namespace protocol = tokard::protocol;
  using protocol::Response;
  std::string frame;
  for (const std::uint8_t byte :
       protocol::request_frame(protocol::Request::ACQUIRE, "rt/ECU1", "demo").payload) {
    frame += "0123456789abcdef"[byte >> 4];
    frame += "0123456789abcdef"[byte & 15];
  }
  std::printf(
      "{\"qos\": %d, \"token_timeout_ms\": %lld, \"request_topic\": \"%s\",\n"
      " \"wait_topic\": \"%s\", \"max_waiters\": %zu, \"response_topic_of_demo\": \"%s\",\n"
      " \"state_topic\": \"%s\", \"online\": \"%s\", \"offline\": \"%s\",\n"
      " \"status_prefix\": \"%s\", \"header_size\": %d,\n"
      " \"results\": {\"%s\": %d, \"%s\": %d, \"%s\": %d},\n"
      " \"acquire_rt_ECU1_by_demo\": \"%s\"}\n",
      protocol::kQos, static_cast<long long>(protocol::kTokenTimeout.count()),
      protocol::kRequestTopic, protocol::kWaitTopic, protocol::kMaxWaiters,
      protocol::response_topic("demo").c_str(), protocol::kStateTopic, protocol::kOnline,
      protocol::kOffline, std::string(protocol::kStatusPrefix).c_str(),
      ecu::lapi::com::kFrameHeaderSize, protocol::to_word(Response::ACQUIRED), Response::ACQUIRED,
      protocol::to_word(Response::BUSY), Response::BUSY, protocol::to_word(Response::NO_ECU),
      Response::NO_ECU, frame.c_str());
}
