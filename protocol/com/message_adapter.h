// Encodes and decodes the bodies of frames (lapi/com/frame.h) as protobuf
// messages.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "com/outcome.h"
#include "lapi/com/frame.h"
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
    const FrameView frame = read_frame(message.payload);
    if (frame.check > FrameCheck::HeaderUndecoded) {
      m_protocol_type = frame.protocol_type();
    }
    switch (frame.check) {
      case FrameCheck::Empty:
        return fail(err::TOO_SHORT);
      case FrameCheck::Short:
        LAPI_LOG(ERROR, log) << "Total length is smaller then expected header length";
        return fail(err::TOO_SHORT);
      case FrameCheck::HeaderUndecoded:
        LAPI_LOG(ERROR, log) << "Unable to decode the header.";
        return fail(err::HEADER_DECODE);
      case FrameCheck::ProtocolNotUsed:
        LAPI_LOG(ERROR, log) << "ProtocolType is set to not used!";
        return fail(err::PROTOCOL_NOT_USED);
      case FrameCheck::HeaderLength:
        LAPI_LOG(ERROR, log) << "Specified hdr-len does not comply.";
        return fail(err::HEADER_LENGTH);
      case FrameCheck::BodyOutside:
      case FrameCheck::Ok:
        break;
    }
    Result result;
    if (frame.check != FrameCheck::Ok ||
        !result.value.ParseFromArray(frame.body, frame.body_size)) {
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
