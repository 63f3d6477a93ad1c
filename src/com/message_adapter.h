// Frames on the internal broker: an 18-byte SREHeader followed by the body.
//
// length_word = protocol type (bits 0-15) | header length (bits 16-31)
//             | body length (bits 32-63)
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "com/outcome.h"
#include "ecu/pb/header.pb.h"
#include "lapi/com/message.h"
#include "lapi/logging/logging.h"
#include "lapi/time/datetime.h"

namespace ecu::lapi::com {

namespace err {
enum PbInternalDeserializationError : std::int32_t {
  NO_ERROR = 0,
  TOO_SHORT = 1,          // payload empty or shorter than the header
  HEADER_DECODE = 2,      // the first 18 bytes are not a header
  PROTOCOL_NOT_USED = 3,  // protocol type 0
  HEADER_LENGTH = 4,      // header length other than 18
  BODY_DECODE = 5,        // body runs past the payload or does not parse
};
}  // namespace err

constexpr int kFrameHeaderSize = 18;

// length_word of an 18-byte header. The layout that serialize writes (field 1
// then field 2, both fixed64) is read directly, which costs a tenth of the
// parser; any other layout goes to the parser, which reads that one the same.
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

template <typename T, typename E>
class IMessageAdapter {
 public:
  virtual ~IMessageAdapter() = default;
  // (true, the framed message) or (false, an empty message).
  virtual std::pair<bool, Message> serialize(const T& message) = 0;
  virtual Outcome<T, E> deserialize(const Message& message) = 0;
};

// One adapter serves one thread at a time: deserialize stores the protocol
// type of the frame it read, and serialize sends it.
template <typename T>
class PbInternalMessageAdapter : public IMessageAdapter<T, err::PbInternalDeserializationError> {
 public:
  using Result = Outcome<T, err::PbInternalDeserializationError>;

  PbInternalMessageAdapter() = default;

  std::pair<bool, Message> serialize(const T& message) override {
    const logging::LogModulePtr log = logging::module("lapi.com.messageadapter");
    const std::uint64_t now_ns = DateTime::time_since_boot_ns();
    const std::int64_t body_size = static_cast<std::int64_t>(message.ByteSizeLong());

    pb::SREHeader header;
    header.set_length_word(1);
    header.set_timestamp_ns(now_ns);
    const std::int64_t header_size = static_cast<std::int64_t>(header.ByteSizeLong());
    header.set_length_word(static_cast<std::uint64_t>(static_cast<std::int64_t>(m_protocol_type) |
                                                      (header_size << 16) | (body_size << 32)));

    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(header_size + body_size), 0);
    try {
      if (!header.SerializeToArray(buffer.data(), static_cast<int>(header_size))) {
        throw std::runtime_error("unable to serialize SREheader!");
      }
      if (!message.SerializeToArray(buffer.data() + header_size, static_cast<int>(body_size))) {
        throw std::runtime_error("unable to serialize body!");
      }
    } catch (const std::runtime_error& e) {
      LAPI_LOG(ERROR, log) << e.what();
      return {false, Message{}};
    } catch (...) {
      LAPI_LOG(EMERG, log) << "Unable to allocate memory for serialization!";
      return {false, Message{}};
    }

    Message out;
    out.qos = 0;
    out.timestamp_ns = now_ns;
    out.timestamp_set = true;
    out.payload = std::move(buffer);
    out.extra_flag = false;
    return {true, std::move(out)};
  }

  Result deserialize(const Message& message) override {
    const logging::LogModulePtr log = logging::module("lapi.com.messageadapter");
    const auto& payload = message.payload;
    const std::uint64_t size = payload.size();
    if (size == 0) {
      return fail(err::TOO_SHORT);
    }
    if (size < static_cast<std::uint64_t>(kFrameHeaderSize)) {
      LAPI_LOG(ERROR, log) << "Total length is smaller then expected header length";
      return fail(err::TOO_SHORT);
    }
    std::uint64_t word = 0;
    if (!read_length_word(payload.data(), word)) {
      LAPI_LOG(ERROR, log) << "Unable to decode the header.";
      return fail(err::HEADER_DECODE);
    }
    m_protocol_type = static_cast<std::int32_t>(word & 0xFFFFu);
    if (m_protocol_type == 0) {
      LAPI_LOG(ERROR, log) << "ProtocolType is set to not used!";
      return fail(err::PROTOCOL_NOT_USED);
    }
    if (((word >> 16) & 0xFFFFu) != static_cast<std::uint64_t>(kFrameHeaderSize)) {
      LAPI_LOG(ERROR, log) << "Specified hdr-len does not comply.";
      return fail(err::HEADER_LENGTH);
    }
    const std::uint64_t body_size = word >> 32;
    Result result;
    if (kFrameHeaderSize + body_size > size ||
        !result.value.ParseFromArray(payload.data() + kFrameHeaderSize, static_cast<int>(body_size))) {
      LAPI_LOG(EMERG, log) << "Unable to deserialize protobuf";
      return fail(err::BODY_DECODE);
    }
    result.ok = true;
    result.error = err::NO_ERROR;
    return result;
  }

  std::int32_t protocol_type() const { return m_protocol_type; }

 private:
  static Result fail(err::PbInternalDeserializationError code) {
    Result result;
    result.error = code;
    return result;
  }

  std::int32_t m_protocol_type = 1;
};

}  // namespace ecu::lapi::com
