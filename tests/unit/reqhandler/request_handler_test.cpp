#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "reqhandler/request_handler.h"
#include "support/fake_transport.h"
#include "support/log_capture.h"

using ecu::lapi::com::Message;
using ecu::lapi::com::PbInternalMessageAdapter;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;
using tokard::test::FakeTransportClient;
using tokard::test::LogCapture;

namespace {

constexpr const char* kRequestTopic = "system/tokard/request";

Message frame(const PgnRequestTokenRequest& request) {
  return PbInternalMessageAdapter<PgnRequestTokenRequest>().serialize(request).second;
}

Message request(PgnRequestTokenRequest::Action action, const std::string& topic, const std::string& client) {
  PgnRequestTokenRequest r;
  r.set_action(action);
  r.set_request_topic(topic);
  r.set_client_name(client);
  return frame(r);
}

class RequestHandlerTest : public testing::Test {
 protected:
  void send(const Message& msg) { transport->deliver(kRequestTopic, msg); }
  void acquire(const std::string& topic, const std::string& client) {
    send(request(PgnRequestTokenRequest::ACQUIRE, topic, client));
  }
  void release(const std::string& topic, const std::string& client) {
    send(request(PgnRequestTokenRequest::RELEASE, topic, client));
  }
  // The last response: its topic, result and request topic.
  PgnRequestTokenResponse last_response(std::string* topic = nullptr) {
    EXPECT_FALSE(transport->published.empty());
    const auto& p = transport->published.back();
    if (topic != nullptr) {
      *topic = p.topic;
    }
    EXPECT_EQ(p.msg.qos, 1);
    auto outcome = PbInternalMessageAdapter<PgnRequestTokenResponse>().deserialize(p.msg);
    EXPECT_TRUE(outcome.ok);
    return outcome.value;
  }

  std::shared_ptr<FakeTransportClient> transport = std::make_shared<FakeTransportClient>();
  std::unique_ptr<tokard::RequestHandler> handler = std::make_unique<tokard::RequestHandler>(transport);
};

using ARequestHandler = RequestHandlerTest;

}  // namespace

TEST_F(ARequestHandler, SubscribesTheRequestTopicAndWithdrawsEverySubscriptionWhenDestroyed) {
  ASSERT_EQ(transport->calls.size(), 1u);
  EXPECT_EQ(transport->calls[0].op, "subscribe");
  EXPECT_EQ(transport->calls[0].topic, kRequestTopic);
  EXPECT_EQ(transport->calls[0].qos, 1);

  acquire("rt/ECU1", "app1");
  handler.reset();
  EXPECT_EQ(transport->call_log(),
            (std::vector<std::string>{"subscribe system/tokard/request", "subscribe rt/ECU1", "subscribe rttx/ECU1",
                                      "unsubscribe system/tokard/request", "unsubscribe rt/ECU1",
                                      "unsubscribe rttx/ECU1"}));
  EXPECT_TRUE(transport->observers.empty());
}

TEST_F(ARequestHandler, AnswersAcquiresOnTheClientsResponseTopicWithAcquiredBusyOrNoEcu) {
  LogCapture log("INFO");
  std::string topic;
  acquire("rt/ECU1", "app1");
  auto response = last_response(&topic);
  EXPECT_EQ(topic, "app/app1/pgn/response");
  EXPECT_EQ(response.result(), PgnRequestTokenResponse::ACQUIRED);
  EXPECT_EQ(response.request_topic(), "rt/ECU1");

  acquire("rt/ECU1", "app1");
  EXPECT_EQ(last_response().result(), PgnRequestTokenResponse::ACQUIRED) << "a refresh";

  acquire("rt/ECU1", "app2");
  response = last_response(&topic);
  EXPECT_EQ(topic, "app/app2/pgn/response");
  EXPECT_EQ(response.result(), PgnRequestTokenResponse::BUSY);

  acquire("bus/ECU1", "app3");
  response = last_response(&topic);
  EXPECT_EQ(topic, "app/app3/pgn/response");
  EXPECT_EQ(response.result(), PgnRequestTokenResponse::NO_ECU);
  EXPECT_EQ(response.request_topic(), "bus/ECU1");
  EXPECT_EQ(transport->published.size(), 4u);

  EXPECT_EQ(log.matching("reqhandler"),
            (std::vector<std::string>{
                "INFO tokard.reqhandler.acquire: Token acquired for 'ECU1' on rt/ECU1 by app1",
                "INFO tokard.reqhandler.acquire: Token acquired for 'ECU1' on rt/ECU1 by app1",
                "INFO tokard.reqhandler.acquire: ECU is busy or acquired by another client for rt/ECU1",
                "ERROR tokard.reqhandler.acquire: Unable to do token handling for topic bus/ECU1 as requested "
                "from client: app3"}));
}

TEST_F(ARequestHandler, NeverAnswersReleasesButLetsTheHolderFreeTheToken) {
  LogCapture log("INFO");
  acquire("rt/ECU1", "app1");
  release("rt/ECU1", "app2");
  release("bus/ECU1", "app1");
  EXPECT_EQ(transport->published.size(), 1u);
  acquire("rt/ECU1", "app2");
  EXPECT_EQ(last_response().result(), PgnRequestTokenResponse::BUSY) << "a release by another changes nothing";

  release("rt/ECU1", "app1");
  acquire("rt/ECU1", "app2");
  EXPECT_EQ(last_response().result(), PgnRequestTokenResponse::ACQUIRED);
  EXPECT_EQ(transport->published.size(), 3u);
  EXPECT_TRUE(log.has(
      "ERROR tokard.reqhandler.release: Unable to do token handling for topic bus/ECU1 as requested from client: "
      "app1"));
}

TEST_F(ARequestHandler, UsesTheClientNameAsItStandsInTheResponseTopic) {
  std::string topic;
  acquire("rt/ECU1", "team/app+1");
  last_response(&topic);
  EXPECT_EQ(topic, "app/team/app+1/pgn/response");
}

TEST_F(ARequestHandler, DropsMessagesOnAnyOtherTopicWithoutAnswer) {
  LogCapture log("DEBUG");
  auto wrapper = transport->observers[kRequestTopic].front();
  const Message msg = request(PgnRequestTokenRequest::ACQUIRE, "rt/ECU1", "app1");
  wrapper->message("system/tokard/request/extra", msg);
  wrapper->message("system/tokard/reques", msg);
  EXPECT_TRUE(transport->published.empty());
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "ERROR tokard.reqhandler: Unexpected message on topic: system/tokard/request/extra",
                             "ERROR tokard.reqhandler: Unexpected message on topic: system/tokard/reques"}));
}

TEST_F(ARequestHandler, LogsEachDecodeErrorAsADecimalCode) {
  const Message good = request(PgnRequestTokenRequest::ACQUIRE, "rt/ECU1", "app1");
  std::vector<Message> bad(5, good);
  bad[0].payload.clear();                 // 1: too short
  bad[1].payload.assign(18, 0xff);        // 2: header does not decode
  bad[2].payload[1] = bad[2].payload[2] = 0;  // 3: protocol type 0
  bad[3].payload[3] = 19;                 // 4: header length 19
  bad[4].payload.pop_back();              // 5: body runs past the payload
  LogCapture log("DEBUG");
  for (const auto& msg : bad) {
    send(msg);
  }
  EXPECT_TRUE(transport->published.empty());
  const auto lines = log.matching("tokard.reqhandler");
  ASSERT_EQ(lines.size(), 5u);
  for (int code = 1; code <= 5; ++code) {
    EXPECT_EQ(lines[code - 1], "ERROR tokard.reqhandler: Deserialize error occurred: " + std::to_string(code));
  }
}

TEST_F(ARequestHandler, RefusesRequestsWithoutClientNameFirstThenWithoutRequestTopic) {
  LogCapture log("DEBUG");
  PgnRequestTokenRequest r;
  r.set_action(PgnRequestTokenRequest::ACQUIRE);
  send(frame(r));                     // neither string
  r.set_client_name("");
  send(frame(r));                     // empty client name, no topic
  r.set_request_topic("rt/ECU1");
  send(frame(r));                     // empty client name
  r.set_client_name("app1");
  r.set_request_topic("");
  send(frame(r));                     // empty topic
  r.clear_request_topic();
  send(frame(r));                     // no topic
  EXPECT_TRUE(transport->published.empty());
  const std::string no_client =
      "ERROR tokard.reqhandler: Received Token request did not contain a client name, unable to handle request";
  const std::string no_topic =
      "ERROR tokard.reqhandler: Received Token request did not contain a request topic, unable to handle request";
  EXPECT_EQ(log.lines(), (std::vector<std::string>{no_client, no_client, no_client, no_topic, no_topic}));
}

TEST_F(ARequestHandler, RefusesAMissingOrUnknownActionByNameWithoutAnswer) {
  LogCapture log("INFO");
  PgnRequestTokenRequest r;
  r.set_request_topic("rt/ECU1");
  r.set_client_name("app1");
  send(frame(r));
  Message unknown = frame(r);
  // Append field 1 with the undefined value 7: kept as an unknown field.
  unknown.payload.insert(unknown.payload.end(), {0x08, 0x07});
  unknown.payload[5] += 2;  // body length: bits 32-39 of the length word
  send(unknown);
  EXPECT_TRUE(transport->published.empty());
  EXPECT_EQ(log.lines(), (std::vector<std::string>(2, "INFO tokard.reqhandler: Request action: UNSPECIFIED not supported.")));
}
