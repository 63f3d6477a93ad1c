#include "frames.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "com/protocol.h"
#include "lapi/rt/signal.h"
#include "status_view.h"

namespace tokctl {
namespace {

using ecu::lapi::com::Message;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;
using ecu::lapi::pb::RtSignalGroup;
using ecu::lapi::rt::kMinDataBytes;

static_assert(kMinDataBytes == 4, "the help and the complaints say \"four\"");
constexpr std::size_t kHexShown = 32;  // bytes of an unknown payload printed

int hex_digit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

std::string hex(const std::string& bytes, std::size_t limit = std::string::npos) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < bytes.size() && i < limit; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    out += kDigits[byte >> 4];
    out += kDigits[byte & 0xF];
  }
  return out;
}

std::string undecodable(const Message& msg, tokard::protocol::FrameError error) {
  const char* word = tokard::protocol::to_word(error);
  return "undecodable frame (" + std::to_string(msg.payload.size()) + " bytes, " +
         (word != nullptr ? word : "error " + std::to_string(error)) + ")";
}

// `words` for ACQUIRE and RELEASE: what the request asks on its topic.
std::string describe_request(const Message& msg, const char* const (&words)[2]) {
  const auto decoded = tokard::protocol::read<PgnRequestTokenRequest>(msg);
  if (!decoded.ok) {
    return undecodable(msg, decoded.error);
  }
  const auto& request = decoded.value;
  std::string action;
  switch (request.action()) {
    case PgnRequestTokenRequest::ACQUIRE:
      action = words[0];
      break;
    case PgnRequestTokenRequest::RELEASE:
      action = words[1];
      break;
    default:
      action = "action " + PgnRequestTokenRequest::Action_Name(request.action());
      break;
  }
  return action + " " + request.request_topic() + " by " + request.client_name();
}

std::string describe_response(const Message& msg) {
  const auto decoded = tokard::protocol::read<PgnRequestTokenResponse>(msg);
  if (!decoded.ok) {
    return undecodable(msg, decoded.error);
  }
  const auto& response = decoded.value;
  const char* word = tokard::protocol::to_word(response.result());
  const std::string result =
      word != nullptr ? word : "result " + PgnRequestTokenResponse::Result_Name(response.result());
  return result + " " + response.request_topic();
}

std::string describe_group(const Message& msg) {
  const auto decoded = tokard::protocol::read<RtSignalGroup>(msg);
  if (!decoded.ok) {
    return undecodable(msg, decoded.error);
  }
  const auto& group = decoded.value;
  bool valid = true;
  std::string signals;
  for (const auto& signal : group.signals()) {
    valid = valid && signal.status() == 0;
    signals +=
        " " + signal.name() + "=" + hex(signal.data()) + ":" + std::to_string(signal.status());
  }
  return group.name() + (valid ? " valid" : " not valid") + signals;
}

}  // namespace

bool parse_signal(const std::string& word, tokard::protocol::SignalValue& out, std::string& error) {
  const auto eq = word.find('=');
  const auto colon = word.rfind(':');
  if (eq == std::string::npos || eq == 0 || colon == std::string::npos || colon < eq) {
    error = "'" + word + "' is not SIGNAL=HEX:STATUS";
    return false;
  }
  const std::string digits = word.substr(eq + 1, colon - eq - 1);
  const std::string status = word.substr(colon + 1);
  if (digits.size() % 2 != 0 || digits.size() < 2 * kMinDataBytes) {
    error = "'" + word + "': the data needs at least four bytes as pairs of hex digits";
    return false;
  }
  std::string data;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const int high = hex_digit(digits[i]);
    const int low = hex_digit(digits[i + 1]);
    if (high < 0 || low < 0) {
      error = "'" + word + "': '" + digits + "' is not hexadecimal";
      return false;
    }
    data += static_cast<char>(high * 16 + low);
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(status.c_str(), &end, 10);
  if (status.empty() || status[0] == '-' || *end != '\0' || errno != 0 || value > 0xFFFFFFFFull) {
    error = "'" + word + "': the status must be a number from 0 to 4294967295";
    return false;
  }
  out.name = word.substr(0, eq);
  out.data = std::move(data);
  out.status = static_cast<std::uint32_t>(value);
  return true;
}

std::string describe(const std::string& topic, const Message& msg, std::uint64_t now_unix_ms) {
  namespace protocol = tokard::protocol;
  if (topic == protocol::kRequestTopic) {
    return describe_request(msg, {"acquire", "release"});
  }
  if (topic == protocol::kWaitTopic) {
    return describe_request(msg, {"wait for", "leave the line of"});
  }
  if (protocol::is_response_topic(topic)) {
    return describe_response(msg);
  }
  if (topic == protocol::kStateTopic) {
    return "tokard " + std::string(msg.payload.begin(), msg.payload.end());
  }
  if (protocol::starts_with(topic, protocol::kStatusPrefix)) {
    const auto status = read_status(msg);
    if (!status) {
      return "undecodable status (" + std::to_string(msg.payload.size()) + " bytes)";
    }
    return status_line(*status, now_unix_ms);
  }
  if (protocol::is_rt_topic(topic)) {
    return describe_group(msg);
  }
  const std::string bytes(msg.payload.begin(), msg.payload.end());
  std::string text = std::to_string(bytes.size()) + " bytes";
  if (!bytes.empty()) {
    text += " " + hex(bytes, kHexShown) + (bytes.size() > kHexShown ? "..." : "");
  }
  return text;
}

std::string watch_line(const std::string& topic, const Message& msg,
                       std::chrono::system_clock::time_point now) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) %
                  std::chrono::seconds(1);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
  char millis[8];
  std::snprintf(millis, sizeof millis, ".%03d", static_cast<int>(ms.count()));
  return std::string(text, length) + millis + " " + topic + " " +
         describe(topic, msg, unix_ms(now));
}

std::uint64_t unix_ms(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(duration_cast<milliseconds>(time.time_since_epoch()).count());
}

}  // namespace tokctl
