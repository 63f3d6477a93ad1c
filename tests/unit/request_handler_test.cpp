// The request handler's checks, answers and log lines, with the fake
// transport standing in for the broker.
#include "reqhandler/request_handler.h"

#include <gtest/gtest.h>

#include "com/protocol.h"
#include "support/fake_transport.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

using protocol::Message;
using protocol::Request;

struct Input {
  Message msg;
  std::string topic = protocol::kRequestTopic;
};
Input acquire(const std::string& topic, const std::string& client) {
  return {protocol::request_frame(Request::ACQUIRE, topic, client)};
}
Input release(const std::string& topic, const std::string& client) {
  return {protocol::request_frame(Request::RELEASE, topic, client)};
}
Input wait(Input in) { return {in.msg, protocol::kWaitTopic}; }
Input with(void (*edit)(Request&)) {
  Request request;
  request.set_action(Request::ACQUIRE);
  request.set_request_topic("rt/ECU1");
  request.set_client_name("app1");
  edit(request);
  return {protocol::frame(request)};
}
Input bytes(void (*edit)(std::vector<std::uint8_t>&), Input in = acquire("rt/ECU1", "app1")) {
  edit(in.msg.payload);
  return in;
}

struct Case {
  const char* name;
  std::vector<Input> inputs;
  Lines answers;  // "<topic> <result> <request topic>"
  Lines lines;    // of the "tokard.reqhandler" modules, at DEBUG
};

const std::string kAcq = "INFO tokard.reqhandler.acquire: ";
const std::string kErr = "ERROR tokard.reqhandler: ";
const std::string kNoClient =
    kErr + "Received Token request did not contain a client name, unable to handle request";
const std::string kNoTopic =
    kErr + "Received Token request did not contain a request topic, unable to handle request";

const std::vector<Case> kTable = {
    {"AnswersAcquiredRefreshBusyAndNoEcu",
     {acquire("rt/ECU1", "app1"), acquire("rt/ECU1", "app1"), acquire("rt/ECU1", "app2"),
      acquire("bus/ECU1", "app3"), acquire("rt/ECU1", "team/app+1")},
     {"app/app1/pgn/response 3 rt/ECU1", "app/app1/pgn/response 3 rt/ECU1",
      "app/app2/pgn/response 4 rt/ECU1", "app/app3/pgn/response 2 bus/ECU1",
      "app/team/app+1/pgn/response 4 rt/ECU1"},
     {kAcq + "Token acquired for 'ECU1' on rt/ECU1 by app1",
      kAcq + "Token acquired for 'ECU1' on rt/ECU1 by app1",
      kAcq + "ECU is busy or acquired by another client for rt/ECU1",
      "ERROR tokard.reqhandler.acquire: Unable to do token handling for topic bus/ECU1 as "
      "requested from client: app3",
      kAcq + "ECU is busy or acquired by another client for rt/ECU1"}},
    {"NeverAnswersReleasesButTheHolderFreesTheToken",
     {acquire("rt/ECU1", "app1"), release("rt/ECU1", "app2"), release("bus/ECU1", "app1"),
      acquire("rt/ECU1", "app2"), release("rt/ECU1", "app1"), acquire("rt/ECU1", "app2")},
     {"app/app1/pgn/response 3 rt/ECU1", "app/app2/pgn/response 4 rt/ECU1",
      "app/app2/pgn/response 3 rt/ECU1"},
     {kAcq + "Token acquired for 'ECU1' on rt/ECU1 by app1",
      "ERROR tokard.reqhandler.release: Unable to do token handling for topic bus/ECU1 as "
      "requested from client: app1",
      kAcq + "ECU is busy or acquired by another client for rt/ECU1",
      kAcq + "Token acquired for 'ECU1' on rt/ECU1 by app2"}},
    {"QueuesOnTheWaitTopicAndPushesTheGrantToTheFirstInLine",
     {wait(acquire("rt/ECU1", "app1")), wait(acquire("rt/ECU1", "app2")),
      wait(acquire("rt/ECU1", "app2")), wait(acquire("rt/ECU1", "app3")),
      wait(release("rt/ECU1", "app3")), acquire("rt/ECU1", "app4"),
      wait(acquire("bus/ECU1", "app4")), release("rt/ECU1", "app1")},
     {"app/app1/pgn/response 3 rt/ECU1", "app/app2/pgn/response 4 rt/ECU1",
      "app/app2/pgn/response 4 rt/ECU1", "app/app3/pgn/response 4 rt/ECU1",
      "app/app4/pgn/response 4 rt/ECU1", "app/app4/pgn/response 2 bus/ECU1",
      "app/app2/pgn/response 3 rt/ECU1"},
     {kAcq + "ECU is busy or acquired by another client for rt/ECU1"}},
    {"RefusesBadWaitRequestsAsBadRequests",
     {wait(bytes([](auto& p) { p.clear(); })),
      wait(with([](Request& r) { r.set_client_name(""); })),
      wait(with([](Request& r) { r.clear_action(); }))},
     {},
     {kErr + "Deserialize error occurred: 1", kNoClient,
      "INFO tokard.reqhandler: Request action: UNSPECIFIED not supported."}},
    {"DropsOtherTopics",
     {{acquire("rt/ECU1", "a").msg, "system/tokard/request/x"},
      {acquire("rt/ECU1", "a").msg, "system/tokard/reques"}},
     {},
     {kErr + "Unexpected message on topic: system/tokard/request/x",
      kErr + "Unexpected message on topic: system/tokard/reques"}},
    {"LogsEachDecodeErrorAsADecimalCode",
     {bytes([](auto& p) { p.clear(); }), bytes([](auto& p) { p.assign(18, 0xff); }),
      bytes([](auto& p) { p[1] = p[2] = 0; }), bytes([](auto& p) { p[3] = 19; }),
      bytes([](auto& p) { p.pop_back(); })},
     {},
     {kErr + "Deserialize error occurred: 1", kErr + "Deserialize error occurred: 2",
      kErr + "Deserialize error occurred: 3", kErr + "Deserialize error occurred: 4",
      kErr + "Deserialize error occurred: 5"}},
    {"ChecksTheClientNameFirstThenTheTopic",
     {with([](Request& r) {
        r.clear_client_name();
        r.clear_request_topic();
      }),
      with([](Request& r) { r.set_client_name(""); }),
      with([](Request& r) { r.set_request_topic(""); }),
      with([](Request& r) { r.clear_request_topic(); })},
     {},
     {kNoClient, kNoClient, kNoTopic, kNoTopic}},
    {"RefusesAMissingOrUnknownActionByName",
     {with([](Request& r) { r.clear_action(); }),
      // action 7, kept as an unknown field
      bytes(
          [](auto& p) {
            p.insert(p.end(), {0x08, 0x07});
            p[5] += 2;
          },
          with([](Request& r) { r.clear_action(); }))},
     {},
     {"INFO tokard.reqhandler: Request action: UNSPECIFIED not supported.",
      "INFO tokard.reqhandler: Request action: UNSPECIFIED not supported."}},
};

class ARequestHandler : public testing::TestWithParam<Case> {};

TEST_P(ARequestHandler, AnswersAndLogs) {
  auto transport = std::make_shared<FakeTransportClient>();
  RequestHandler handler(transport);
  LogCapture log;
  for (const Input& in : GetParam().inputs) {
    transport->observers[protocol::kRequestTopic].front()->message(in.topic, in.msg);
  }
  Lines answers;
  for (const auto& sent : transport->published) {
    const auto response = protocol::read<protocol::Response>(sent.msg);
    EXPECT_EQ(sent.msg.qos, 1);
    answers.push_back(sent.topic + " " + std::to_string(response.value.result()) + " " +
                      response.value.request_topic());
  }
  EXPECT_EQ(answers, GetParam().answers);
  EXPECT_EQ(log.matching("tokard.reqhandler"), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(Table, ARequestHandler, testing::ValuesIn(kTable),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ARequestHandlerLifetime, SubscribesTheRequestTopicFirstThenTheWaitTopicAndWithdrawsAll) {
  auto transport = std::make_shared<FakeTransportClient>();
  auto handler = std::make_unique<RequestHandler>(transport);
  transport->deliver(protocol::kRequestTopic, acquire("rt/ECU1", "app1").msg);
  EXPECT_FALSE(handler->wait_lines().watching()) << "nobody waits: no thread";
  transport->deliver(protocol::kWaitTopic, acquire("rt/ECU1", "app2").msg);
  EXPECT_TRUE(handler->wait_lines().watching());
  handler.reset();
  EXPECT_EQ(
      transport->call_log(),
      (Lines{"subscribe system/tokard/request", "subscribe system/tokard/wait", "subscribe rt/ECU1",
             "subscribe rttx/ECU1", "unsubscribe system/tokard/request",
             "unsubscribe system/tokard/wait", "unsubscribe rt/ECU1", "unsubscribe rttx/ECU1"}));
  EXPECT_EQ(transport->calls[0].qos, 1);
  EXPECT_TRUE(transport->observers.empty());
}

}  // namespace
}  // namespace tokard::test
