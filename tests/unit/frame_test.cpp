// The frame of every broker message: golden bytes, and the error code and
// log line of each header check.
#include <gtest/gtest.h>

#include <algorithm>
#include <new>

#include "com/protocol.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

using ecu::lapi::com::PbInternalMessageAdapter;
using protocol::Message;
using protocol::Request;
using Bytes = std::vector<std::uint8_t>;
namespace err = ecu::lapi::com::err;

// action=1, request_topic="rt/ECU1", client_name="app1"
const Bytes kAcquireBody = {0x08, 0x01, 0x12, 0x07, 'r', 't', '/', 'E', 'C',
                            'U',  '1',  0x1a, 0x04, 'a', 'p', 'p', '1'};

// Golden frame: field 1 (fixed64 length word), field 2 (fixed64 time), body.
Message golden(std::uint64_t protocol, std::uint64_t header_len, std::uint64_t body_len,
               const Bytes& body, std::uint64_t time = 0x0102030405060708) {
  Message msg;
  const std::uint64_t words[] = {protocol | (header_len << 16) | (body_len << 32), time};
  for (int w = 0; w < 2; ++w) {
    msg.payload.push_back(w == 0 ? 0x09 : 0x11);
    for (int i = 0; i < 8; ++i) {
      msg.payload.push_back(static_cast<std::uint8_t>(words[w] >> (8 * i)));
    }
  }
  msg.payload.insert(msg.payload.end(), body.begin(), body.end());
  return msg;
}

TEST(AFrame, HasTheGoldenBytesAndDecodesBackToTheRequest) {
  const Message msg = protocol::request_frame(Request::ACQUIRE, "rt/ECU1", "app1");
  EXPECT_EQ(msg.payload, golden(1, 18, 17, kAcquireBody, msg.timestamp_ns).payload);
  EXPECT_TRUE(msg.qos == 0 && !msg.extra_flag) << "QoS 0, not retained";
  EXPECT_TRUE(msg.timestamp_set && msg.timestamp_ns > 0);

  Bytes trailing = kAcquireBody;
  trailing.insert(trailing.end(), {0xde, 0xad});  // bytes past the declared body are ignored
  const auto back = protocol::read<Request>(golden(1, 18, 17, trailing));
  ASSERT_TRUE(back.ok);
  Message reordered = golden(1, 18, 17, kAcquireBody);  // time before length: read by the parser
  std::rotate(reordered.payload.begin(), reordered.payload.begin() + 9,
              reordered.payload.begin() + 18);
  EXPECT_TRUE(protocol::read<Request>(reordered).ok);
  EXPECT_EQ(back.error, err::NO_ERROR);
  EXPECT_EQ(back.value.SerializeAsString(), std::string(kAcquireBody.begin(), kAcquireBody.end()));

  const auto big = protocol::read<protocol::Response>(
      protocol::response_frame(protocol::Response::BUSY, std::string(70000, 'x')));
  ASSERT_TRUE(big.ok);
  EXPECT_EQ(big.value.request_topic().size(), 70000u);
  EXPECT_EQ(protocol::frame(protocol::Response()).payload.size(), 18u);
}

struct Refusal {
  Message msg;
  err::PbInternalDeserializationError code;
  const char* line;       // "" when none is logged
  std::int32_t protocol;  // the type the adapter sends afterwards
};

TEST(AFrame, IsRefusedWithTheCodeAndLineOfTheFirstHeaderCheckItFails) {
  Message garbage, one_byte, short_header = golden(1, 18, 0, {});
  garbage.payload.assign(18, 0xff);
  one_byte.payload = {0x09};
  short_header.payload.resize(17);
  const std::string kShort =
      "ERROR lapi.com.messageadapter: Total length is smaller then expected header length";
  const std::string kBody = "EMERG lapi.com.messageadapter: Unable to deserialize protobuf";
  const std::string kLength = "ERROR lapi.com.messageadapter: Specified hdr-len does not comply.";
  const std::vector<Refusal> table = {
      {Message{}, err::TOO_SHORT, "", 1},
      {one_byte, err::TOO_SHORT, kShort.c_str(), 1},
      {short_header, err::TOO_SHORT, kShort.c_str(), 1},
      {garbage, err::HEADER_DECODE, "ERROR lapi.com.messageadapter: Unable to decode the header.",
       1},
      {golden(0, 18, 0, {}), err::PROTOCOL_NOT_USED,
       "ERROR lapi.com.messageadapter: ProtocolType is set to not used!", 0},
      {golden(7, 17, 0, {}), err::HEADER_LENGTH, kLength.c_str(), 7},
      {golden(1, 19, 0, {}), err::HEADER_LENGTH, kLength.c_str(), 1},
      {golden(1, 18, 18, kAcquireBody), err::BODY_DECODE, kBody.c_str(), 1},
      {golden(1, 18, 0xFFFFFFFF, kAcquireBody), err::BODY_DECODE, kBody.c_str(), 1},
      {golden(0xBEEF, 18, 3, {0x12, 0x07, 'r'}), err::BODY_DECODE, kBody.c_str(), 0xBEEF},
  };
  for (const auto& c : table) {
    SCOPED_TRACE(c.line);
    LogCapture log;
    PbInternalMessageAdapter<Request> adapter;
    const auto outcome = adapter.deserialize(c.msg);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, c.code);
    EXPECT_FALSE(outcome.value.has_client_name());
    EXPECT_EQ(log.lines(), *c.line ? Lines{c.line} : Lines{});
    // A later frame of this adapter carries the protocol type it read.
    const Bytes sent = adapter.serialize(Request()).second.payload;
    EXPECT_EQ(sent[1] | sent[2] << 8, c.protocol);
  }
}

// A body whose serialisation fails in the two ways the runtime can fail.
struct FailingBody {
  bool throws = false;
  std::size_t ByteSizeLong() const { return 4; }
  bool SerializeToArray(void*, int) const {
    if (throws) {
      throw std::bad_alloc();
    }
    return false;
  }
  bool ParseFromArray(const void*, int) { return true; }
};

TEST(AFrame, IsNotBuiltFromABodyThatFailsToSerialize) {
  LogCapture log;
  PbInternalMessageAdapter<FailingBody> adapter;
  for (const bool throws : {false, true}) {
    const auto [ok, msg] = adapter.serialize(FailingBody{throws});
    EXPECT_FALSE(ok);
    EXPECT_TRUE(msg.payload.empty());
    EXPECT_FALSE(msg.timestamp_set);
  }
  EXPECT_EQ(log.lines(),
            (Lines{"ERROR lapi.com.messageadapter: unable to serialize body!",
                   "EMERG lapi.com.messageadapter: Unable to allocate memory for serialization!"}));
}

}  // namespace
}  // namespace tokard::test
