#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "support/log_capture.h"

using ecu::lapi::com::Message;
using ecu::lapi::com::PbInternalMessageAdapter;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;
using tokard::test::LogCapture;
namespace err = ecu::lapi::com::err;

namespace {

using Bytes = std::vector<std::uint8_t>;

void put_le64(Bytes& out, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) {
    out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
}

// A frame with the given length word fields and body bytes.
Message frame(std::uint64_t protocol, std::uint64_t header_len, std::uint64_t body_len, const Bytes& body,
              std::uint64_t timestamp = 0x0102030405060708ULL) {
  Message msg;
  msg.payload.push_back(0x09);
  put_le64(msg.payload, protocol | (header_len << 16) | (body_len << 32));
  msg.payload.push_back(0x11);
  put_le64(msg.payload, timestamp);
  msg.payload.insert(msg.payload.end(), body.begin(), body.end());
  return msg;
}

PgnRequestTokenRequest acquire_request() {
  PgnRequestTokenRequest request;
  request.set_action(PgnRequestTokenRequest::ACQUIRE);
  request.set_request_topic("rt/ECU1");
  request.set_client_name("app1");
  return request;
}

// action=1, request_topic="rt/ECU1", client_name="app1"
const Bytes kAcquireBody = {0x08, 0x01, 0x12, 0x07, 'r', 't', '/', 'E', 'C', 'U', '1',
                            0x1a, 0x04, 'a',  'p',  'p', '1'};

// A body type whose serialisation fails in the two ways the runtime can fail.
struct FailingBody {
  bool throws = false;
  std::size_t ByteSizeLong() const { return 4; }
  bool SerializeToArray(void*, int) const {
    if (throws) {
      throw std::bad_alloc();
    }
    return false;  // what protobuf answers for a message that is not initialised
  }
  bool ParseFromArray(const void*, int) { return true; }
};

}  // namespace

TEST(AFrame, HasTheGoldenLayoutForAKnownRequest) {
  PbInternalMessageAdapter<PgnRequestTokenRequest> adapter;
  auto [ok, msg] = adapter.serialize(acquire_request());
  ASSERT_TRUE(ok);

  const Message expected = frame(1, 18, kAcquireBody.size(), kAcquireBody, msg.timestamp_ns);
  EXPECT_EQ(msg.payload, expected.payload);
  EXPECT_EQ(msg.payload.size(), 18u + 17u);
  EXPECT_EQ(msg.qos, 0);
  EXPECT_TRUE(msg.timestamp_set);
  EXPECT_FALSE(msg.extra_flag);
  EXPECT_GT(msg.timestamp_ns, 0u) << "the boot clock reading stands in the header and the message";
}

TEST(AFrame, DecodesGoldenBytesBackToTheRequest) {
  PbInternalMessageAdapter<PgnRequestTokenRequest> adapter;
  auto outcome = adapter.deserialize(frame(1, 18, kAcquireBody.size(), kAcquireBody));
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.error, err::NO_ERROR);
  EXPECT_EQ(outcome.value.SerializeAsString(), acquire_request().SerializeAsString());
}

TEST(AFrame, RoundTripsResponsesAndEmptyBodiesWithAnEighteenByteHeaderWhateverTheValues) {
  PgnRequestTokenResponse response;
  response.set_request_topic(std::string(70000, 'x'));
  response.set_result(PgnRequestTokenResponse::BUSY);
  PbInternalMessageAdapter<PgnRequestTokenResponse> adapter;
  auto [ok, msg] = adapter.serialize(response);
  ASSERT_TRUE(ok);
  EXPECT_EQ(msg.payload.size(), 18 + response.ByteSizeLong());
  auto back = PbInternalMessageAdapter<PgnRequestTokenResponse>().deserialize(msg);
  ASSERT_TRUE(back.ok);
  EXPECT_EQ(back.value.request_topic(), response.request_topic());
  EXPECT_EQ(back.value.result(), PgnRequestTokenResponse::BUSY);

  auto [empty_ok, empty] = adapter.serialize(PgnRequestTokenResponse());
  ASSERT_TRUE(empty_ok);
  EXPECT_EQ(empty.payload.size(), 18u);
  auto decoded = adapter.deserialize(empty);
  EXPECT_TRUE(decoded.ok);
  EXPECT_FALSE(decoded.value.has_result());
}

TEST(AFrame, IsRefusedWhenTooShortWithALineOnlyForNonEmptyPayloads) {
  LogCapture log("DEBUG");
  PbInternalMessageAdapter<PgnRequestTokenRequest> adapter;
  EXPECT_EQ(adapter.deserialize(Message{}).error, err::TOO_SHORT);
  EXPECT_TRUE(log.lines().empty());

  LogCapture log2("DEBUG");
  Message short_msg = frame(1, 18, 0, {});
  short_msg.payload.resize(17);
  auto outcome = adapter.deserialize(short_msg);
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, err::TOO_SHORT);
  Message one;
  one.payload = {0x09};
  EXPECT_EQ(adapter.deserialize(one).error, err::TOO_SHORT);
  EXPECT_EQ(log2.lines(), (std::vector<std::string>(
                              2, "ERROR lapi.com.messageadapter: Total length is smaller then expected header length")));
}

TEST(AFrame, IsRefusedWithTheCodeAndLineOfEachHeaderCheck) {
  struct Case {
    Message msg;
    err::PbInternalDeserializationError code;
    std::string line;
  };
  Message garbage;
  garbage.payload.assign(18, 0xff);
  const std::vector<Case> cases = {
      {garbage, err::HEADER_DECODE, "ERROR lapi.com.messageadapter: Unable to decode the header."},
      {frame(0, 18, 0, {}), err::PROTOCOL_NOT_USED, "ERROR lapi.com.messageadapter: ProtocolType is set to not used!"},
      {frame(1, 17, 0, {}), err::HEADER_LENGTH, "ERROR lapi.com.messageadapter: Specified hdr-len does not comply."},
      {frame(1, 19, 0, {}), err::HEADER_LENGTH, "ERROR lapi.com.messageadapter: Specified hdr-len does not comply."},
      {frame(1, 18, kAcquireBody.size() + 1, kAcquireBody), err::BODY_DECODE,
       "EMERG lapi.com.messageadapter: Unable to deserialize protobuf"},
      {frame(1, 18, 0xFFFFFFFFULL, kAcquireBody), err::BODY_DECODE,
       "EMERG lapi.com.messageadapter: Unable to deserialize protobuf"},
      {frame(1, 18, 3, {0x12, 0x07, 'r'}), err::BODY_DECODE,
       "EMERG lapi.com.messageadapter: Unable to deserialize protobuf"},
  };
  for (const auto& c : cases) {
    LogCapture log("DEBUG");
    auto outcome = PbInternalMessageAdapter<PgnRequestTokenRequest>().deserialize(c.msg);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, c.code) << c.line;
    EXPECT_FALSE(outcome.value.has_client_name()) << "a failure carries a default value";
    EXPECT_EQ(log.lines(), std::vector<std::string>{c.line});
  }
}

TEST(AFrame, StoresItsProtocolTypeEvenWhenRefusingIt) {
  PbInternalMessageAdapter<PgnRequestTokenRequest> adapter;
  EXPECT_EQ(adapter.protocol_type(), 1);
  EXPECT_FALSE(adapter.deserialize(frame(0, 18, 0, {})).ok);
  EXPECT_EQ(adapter.protocol_type(), 0);

  EXPECT_TRUE(adapter.deserialize(frame(0xBEEF, 18, 0, {})).ok);
  EXPECT_EQ(adapter.protocol_type(), 0xBEEF);
  auto [ok, msg] = adapter.serialize(acquire_request());
  ASSERT_TRUE(ok);
  EXPECT_EQ(msg.payload[1], 0xEF) << "a later serialize sends the stored type";
  EXPECT_EQ(msg.payload[2], 0xBE);
}

TEST(AFrame, IgnoresBytesAfterTheDeclaredBody) {
  Bytes body = kAcquireBody;
  body.insert(body.end(), {0xde, 0xad, 0xbe, 0xef});
  auto outcome =
      PbInternalMessageAdapter<PgnRequestTokenRequest>().deserialize(frame(1, 18, kAcquireBody.size(), body));
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.value.client_name(), "app1");
}

TEST(AFrame, IsNotBuiltFromABodyThatFailsToSerialize) {
  LogCapture log("DEBUG");
  PbInternalMessageAdapter<FailingBody> adapter;
  auto [ok, msg] = adapter.serialize(FailingBody{});
  EXPECT_FALSE(ok);
  EXPECT_TRUE(msg.payload.empty());
  EXPECT_FALSE(msg.timestamp_set);
  EXPECT_EQ(msg.timestamp_ns, 0u);

  FailingBody throwing;
  throwing.throws = true;
  auto [ok2, msg2] = adapter.serialize(throwing);
  EXPECT_FALSE(ok2);
  EXPECT_TRUE(msg2.payload.empty());
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "ERROR lapi.com.messageadapter: unable to serialize body!",
                             "EMERG lapi.com.messageadapter: Unable to allocate memory for serialization!"}));
}
