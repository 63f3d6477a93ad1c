// Every message on the internal broker is a frame: an 18-byte SREHeader, then
// the body.
//
//   length_word = protocol type (bits 0-15) | header length (bits 16-31)
//               | body length (bits 32-63)
#pragma once

#include <cstdint>
#include <vector>

#include "ecu/pb/header.pb.h"

namespace ecu::lapi::com {

constexpr int kFrameHeaderSize = 18;

// length_word of an 18-byte header. The layout that encoders write (field 1
// then field 2, both fixed64) is read directly, without the parser's cost;
// any other layout goes to the parser, which reads that one the same.
inline bool read_length_word(const std::uint8_t* bytes, std::uint64_t& word) {
  if (bytes[0] == 0x09 && bytes[9] == 0x11) {
    word = 0;
    for (int i = 8; i >= 1; --i) {
      word = (word << 8) | bytes[i];
    }
    return true;
  }
  pb::SREHeader header;
  if (!header.ParseFromArray(bytes, kFrameHeaderSize)) {
    return false;
  }
  word = header.length_word();
  return true;
}

// The header checks, in the order they are made: a frame fails the first one
// it does not pass, and is Ok past the last.
enum class FrameCheck {
  Empty,            // no payload at all
  Short,            // fewer bytes than a header
  HeaderUndecoded,  // the first 18 bytes are not a header
  ProtocolNotUsed,  // protocol type 0
  HeaderLength,     // header length other than 18
  BodyOutside,      // the body runs past the payload
  Ok,
};

inline const char* to_string(FrameCheck check) {
  switch (check) {
    case FrameCheck::Ok:
      return "ok";
    case FrameCheck::Empty:
      return "empty payload";
    case FrameCheck::Short:
      return "shorter than a header";
    case FrameCheck::HeaderUndecoded:
      return "header does not decode";
    case FrameCheck::ProtocolNotUsed:
      return "protocol type 0";
    case FrameCheck::HeaderLength:
      return "header length not 18";
    case FrameCheck::BodyOutside:
      return "body runs past the payload";
  }
  return "?";
}

struct FrameView {
  FrameCheck check = FrameCheck::Empty;
  std::uint64_t length_word = 0;  // read once the check is past HeaderUndecoded
  const std::uint8_t* body = nullptr;
  int body_size = 0;

  std::int32_t protocol_type() const { return static_cast<std::int32_t>(length_word & 0xFFFFu); }
};

// Where the body of `payload` lies, or which header check fails.
inline FrameView read_frame(const std::vector<std::uint8_t>& payload) {
  FrameView view;
  const std::uint64_t size = payload.size();
  if (size == 0) {
    return view;
  }
  view.check = FrameCheck::Short;
  if (size < static_cast<std::uint64_t>(kFrameHeaderSize)) {
    return view;
  }
  view.check = FrameCheck::HeaderUndecoded;
  if (!read_length_word(payload.data(), view.length_word)) {
    return view;
  }
  view.check = FrameCheck::ProtocolNotUsed;
  if (view.protocol_type() == 0) {
    return view;
  }
  view.check = FrameCheck::HeaderLength;
  if (((view.length_word >> 16) & 0xFFFFu) != static_cast<std::uint64_t>(kFrameHeaderSize)) {
    return view;
  }
  view.check = FrameCheck::BodyOutside;
  const std::uint64_t body_size = view.length_word >> 32;
  if (kFrameHeaderSize + body_size > size) {
    return view;
  }
  view.check = FrameCheck::Ok;
  view.body = payload.data() + kFrameHeaderSize;
  view.body_size = static_cast<int>(body_size);
  return view;
}

}  // namespace ecu::lapi::com
