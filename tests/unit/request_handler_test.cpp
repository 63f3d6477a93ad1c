// The request handler's checks, answers and log lines, with the fake
// transport standing in for the broker; the RT topic grammar; the ECU
// container's records and subscriptions; and the retained token statuses:
// which are kept, their read-back at start and their republish after a
// reconnect.
#include "reqhandler/request_handler.h"

#include <gtest/gtest.h>

#include "com/protocol.h"
#include "ecu/ecu_container.h"
#include "status/status_readback.h"
#include "status/status_republisher.h"
#include "support/fake_transport.h"
#include "support/log_capture.h"
#include "tokard/pb/status.pb.h"
#include "utils/topic.h"

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
    {"AnswersAcquiredBusyAndNoEcu",
     {acquire("rt/ECU1", "app1"), acquire("rt/ECU1", "app2"), acquire("bus/ECU1", "app3")},
     {"app/app1/pgn/response 3 rt/ECU1", "app/app2/pgn/response 4 rt/ECU1",
      "app/app3/pgn/response 2 bus/ECU1"},
     {kAcq + "Token acquired for 'ECU1' on rt/ECU1 by app1",
      kAcq + "ECU is busy or acquired by another client for rt/ECU1",
      "ERROR tokard.reqhandler.acquire: Unable to do token handling for topic bus/ECU1 as "
      "requested from client: app3"}},
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
      wait(acquire("rt/ECU1", "app3")), wait(release("rt/ECU1", "app3")),
      acquire("rt/ECU1", "app4"), wait(acquire("bus/ECU1", "app4")), release("rt/ECU1", "app1")},
     {"app/app1/pgn/response 3 rt/ECU1", "app/app2/pgn/response 4 rt/ECU1",
      "app/app3/pgn/response 4 rt/ECU1", "app/app4/pgn/response 4 rt/ECU1",
      "app/app4/pgn/response 2 bus/ECU1", "app/app2/pgn/response 3 rt/ECU1"},
     {kAcq + "ECU is busy or acquired by another client for rt/ECU1"}},
    {"DropsOtherTopicsAndUndecodableFrames",
     {{acquire("rt/ECU1", "a").msg, "system/tokard/request/x"},
      {acquire("rt/ECU1", "a").msg, "system/tokard/reques"},
      bytes([](auto& p) { p.clear(); }),
      bytes([](auto& p) { p.pop_back(); })},
     {},
     {kErr + "Unexpected message on topic: system/tokard/request/x",
      kErr + "Unexpected message on topic: system/tokard/reques",
      kErr + "Deserialize error occurred: 1", kErr + "Deserialize error occurred: 5"}},
    {"ChecksTheClientNameThenTheTopicThenTheAction",
     {with([](Request& r) {
        r.clear_client_name();
        r.clear_request_topic();
      }),
      with([](Request& r) { r.set_client_name(""); }),
      with([](Request& r) { r.set_request_topic(""); }),
      with([](Request& r) { r.clear_request_topic(); }),
      // action 7, kept as an unknown field
      bytes(
          [](auto& p) {
            p.insert(p.end(), {0x08, 0x07});
            p[5] += 2;
          },
          with([](Request& r) { r.clear_action(); }))},
     {},
     {kNoClient, kNoClient, kNoTopic, kNoTopic,
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

TEST(AnRtTopic, NamesItsEcuInTheLastSegmentOrSaysWhyNot) {
  const auto ecu_of = [](const std::string& topic) {
    const auto out = utils::ecu_from_topic(topic);
    EXPECT_EQ(out.ok, out.error.empty()) << topic;
    return out.value + out.error;
  };
  for (const auto& [topic, ecu] :
       std::vector<std::pair<std::string, std::string>>{{"rt/ECU1", "ECU1"},
                                                        {"rttx/ECU1", "ECU1"},
                                                        {"rt/a/b/ECU1", "ECU1"},
                                                        {"rt/  ECU1 \t", "ECU1"},
                                                        {"rt/\n\v E1 X\f\r", "E1 X"},
                                                        {"rt/\240E1", "\240E1"},
                                                        {"rt/   ", ""}}) {
    EXPECT_EQ(ecu_of(topic), ecu) << topic;
  }
  for (const char* topic : {"rt/", "rttx/", "rt/ECU1/"}) {
    EXPECT_EQ(ecu_of(topic), "Unable to find ECU part of topic!") << topic;
  }
  for (const char* topic : {"RT/ECU1", " rt/ECU1", "rtx/ECU1", "", "rttxECU1", "bus/rt/ECU1"}) {
    EXPECT_EQ(ecu_of(topic), "Not an RT topic!") << topic;
  }
}

TEST(AnEcuContainer, SubscribesEachNewTopicThenItsTransmitTopicAndWithdrawsThemByEcuName) {
  auto transport = std::make_shared<FakeTransportClient>();
  auto container = std::make_unique<EcuContainer>(transport);
  LogCapture log;
  struct Case {
    std::string topic, ecu;
    Lines subscribed;
  };
  // The transmit topic drops the first three characters, whatever they are.
  for (const Case& c :
       std::vector<Case>{{"rttx/ECU2", "ECU2", {"rttx/ECU2", "rttx/x/ECU2"}},
                         {"rt/bus0/ECU1", "ECU1", {"rt/bus0/ECU1", "rttx/bus0/ECU1"}},
                         {"rt/ECU2", "ECU2", {"rt/ECU2", "rttx/ECU2"}},
                         {"rt/ECU1", "ECU1", {"rt/ECU1", "rttx/ECU1"}},
                         {"rt/ECU1", "ECU1", {}},
                         {"rt/ ", "", {"rt/ ", "rttx/ "}},
                         {"bus/ECU1", "-", {}},
                         {"rt/", "-", {}}}) {
    transport->calls.clear();
    const auto ecu = container->ecu_from_topic(c.topic);
    EXPECT_EQ(ecu ? ecu->m_name : "-", c.ecu) << c.topic;
    Lines subscribed;
    for (const auto& call : transport->calls) {
      EXPECT_EQ(call.qos, 1);
      EXPECT_EQ(call.observer, ecu.get());
      subscribed.push_back(call.topic);
    }
    EXPECT_EQ(subscribed, c.subscribed) << c.topic;
  }
  EXPECT_EQ(container->size(), 3u);
  EXPECT_EQ(log.matching("tokard.ecucontainer: create"),
            (Lines{"INFO tokard.ecucontainer: create ECU 'ECU2'",
                   "INFO tokard.ecucontainer: create ECU 'ECU1'",
                   "INFO tokard.ecucontainer: create ECU ''"}));
  EXPECT_EQ(log.matching("WARNING"),
            (Lines{"WARNING tokard.ecucontainer: Unable to get ECU from topic: bus/ECU1",
                   "WARNING tokard.ecucontainer: Unable to get ECU from topic: rt/"}));
  EXPECT_EQ(log.matching("Got ECU 'ECU1'").front(),
            "DEBUG tokard.ecucontainer: Got ECU 'ECU1' for topic: rt/bus0/ECU1");

  transport->calls.clear();
  container.reset();
  EXPECT_EQ(transport->call_log(),
            (Lines{"unsubscribe rt/ ", "unsubscribe rttx/ ", "unsubscribe rt/ECU1",
                   "unsubscribe rttx/ECU1", "unsubscribe rt/bus0/ECU1",
                   "unsubscribe rttx/bus0/ECU1", "unsubscribe rt/ECU2", "unsubscribe rttx/ECU2",
                   "unsubscribe rttx/ECU2", "unsubscribe rttx/x/ECU2"}));
  EXPECT_TRUE(transport->observers.empty());
}

// Each publish as "<ECU> status", "<ECU> removed" or the marker's topic.
std::vector<std::string> sent(const FakeTransportClient& fake) {
  std::vector<std::string> out;
  for (const auto& p : fake.published) {
    const bool status = p.topic.rfind(protocol::kStatusPrefix, 0) == 0;
    out.push_back(!status ? p.topic
                          : p.topic.substr(protocol::kStatusPrefix.size()) +
                                (p.msg.payload.empty() ? " removed" : " status"));
  }
  return out;
}

TEST(AStatusPublisher, KeepsOnlyStatusesOfEcusOnceHeldOrBlocked) {
  auto fake = std::make_shared<FakeTransportClient>();
  StatusPublisher publisher(fake, "this-boot");
  Ecu ecu("E1");
  const auto set = [&](bool blocked, std::uint64_t generation) {
    ecu.restore("", Ecu::Clock::now(), blocked, {generation, 0});
    publisher.publish(ecu);
  };
  set(false, 0);  // never held: nothing
  set(true, 0);
  set(false, 0);
  set(false, 0);
  EXPECT_EQ(publisher.republish(), 1u) << "the removal again";
  set(false, 1);
  set(false, 1);
  EXPECT_EQ(sent(*fake), (std::vector<std::string>{"E1 status", "E1 removed", "E1 removed",
                                                   "E1 status", "E1 status"}));
}

TEST(AStatusRepublisher, SendsOneRoundAtATimeAndOneMoreForAReconnectMeanwhile) {
  auto fake = std::make_shared<FakeTransportClient>();
  auto publisher = std::make_shared<StatusPublisher>(fake, "this-boot");
  StatusRepublisher republisher(fake, publisher);
  republisher.connected();
  EXPECT_TRUE(fake->calls.empty()) << "nothing kept: no round, no subscription";
  Ecu held("E1");
  held.restore("A", Ecu::Clock::now(), false, {1, 0});
  publisher->publish(held);
  fake->published.clear();
  fake->connected = true;
  republisher.connected();
  republisher.connected();  // the broker flaps: only the marker again
  const std::string marker = protocol::kReadbackTopic;
  EXPECT_EQ(sent(*fake), (std::vector<std::string>{"E1 status", marker, marker}));

  const protocol::Message first = fake->published.back().msg;
  fake->published.clear();
  fake->deliver(marker, first);
  EXPECT_EQ(sent(*fake), (std::vector<std::string>{"E1 status", marker})) << "one more round";
  fake->deliver(marker, first);
  republisher.remind();
  EXPECT_EQ(fake->published.size(), 3u) << "an earlier round's marker ends nothing";
  fake->deliver(marker, fake->published.back().msg);
  republisher.remind();
  EXPECT_EQ(fake->published.size(), 3u) << "the last round is over";
}

// A request handler whose records the status publisher watches.
struct Rig {
  Rig() { handler.ecu_container().set_listener(publisher); }
  void acquire(const char* client) {
    fake->deliver(protocol::kRequestTopic,
                  protocol::request_frame(protocol::Request::ACQUIRE, "rt/E1", client));
  }
  std::shared_ptr<FakeTransportClient> fake = std::make_shared<FakeTransportClient>();
  RequestHandler handler{fake};
  std::shared_ptr<StatusPublisher> publisher = std::make_shared<StatusPublisher>(fake, "this-boot");
};

TEST(AStatusReadback, DecidesTheHeldRequestsOnceItsMarkerIsTenSecondsLate) {
  Rig rig;
  Ecu::Clock::time_point now{};
  StatusReadback readback(rig.fake, rig.handler, rig.publisher, now, [&] { return now; });
  rig.fake->connected = true;
  readback.connected();
  rig.acquire("B");
  now += StatusReadback::kLongest;
  readback.remind();
  rig.acquire("C");
  EXPECT_EQ(rig.fake->published.size(), 2u) << "the marker twice, in case the broker dropped it";
  now += std::chrono::milliseconds(1);
  rig.acquire("D");
  const std::string marker = protocol::kReadbackTopic;
  EXPECT_EQ(sent(*rig.fake),
            (std::vector<std::string>{marker, marker, "E1 status", "app/B/pgn/response",
                                      "app/C/pgn/response", "app/D/pgn/response"}));
}

TEST(AStatusReadback, WithdrawsItsSubscriptionsWhenItEndsUnfinished) {
  Rig rig;
  { StatusReadback readback(rig.fake, rig.handler, rig.publisher, Ecu::Clock::now()); }
  EXPECT_EQ(rig.fake->subscription_count(), 2u) << "the request and wait topics only";
}

// A retained status on "system/tokard/status/E1", held by A, as the read-back
// finds it.
struct Found {
  const char* name;
  const char* ecu;
  const char* topic;  // of the status, with its transmit topic
  const char* boot_id;
  std::uint64_t generation;
  std::vector<std::string> sent;  // by the read-back, after its marker
  int answer;                     // to B's acquire of rt/E1 afterwards
};

constexpr int kBusy = protocol::Response::BUSY, kAcquired = protocol::Response::ACQUIRED;

class AStatusFound : public testing::TestWithParam<Found> {};

TEST_P(AStatusFound, IsRestoredRemovedOrIgnored) {
  Rig rig;
  StatusReadback readback(rig.fake, rig.handler, rig.publisher, Ecu::Clock::now());
  readback.connected();
  pb::TokenStatus status;
  status.set_ecu(GetParam().ecu);
  status.set_holder("A");
  status.set_boot_id(GetParam().boot_id);
  status.set_generation(GetParam().generation);
  status.set_granted_unix_ms(0);
  status.set_blocked(false);
  status.add_topics(GetParam().topic);
  status.add_topics(protocol::tx_topic(GetParam().topic));
  rig.fake->deliver(protocol::status_topic("E1"), protocol::frame(status));
  rig.fake->deliver(protocol::kReadbackTopic, rig.fake->published.front().msg);
  rig.fake->published.erase(rig.fake->published.begin());
  EXPECT_EQ(sent(*rig.fake), GetParam().sent);
  EXPECT_EQ(rig.fake->observers.count(protocol::kStatusFilter), 0u) << "withdrawn";
  const bool restored = GetParam().sent == std::vector<std::string>{"E1 status"};
  EXPECT_EQ(rig.fake->observers.count("rttx/E1"), restored) << "the record follows its topics";
  if (GetParam().answer == kBusy) {
    const auto back = protocol::read<pb::TokenStatus>(rig.fake->published.front().msg);
    EXPECT_EQ(back.value.SerializeAsString(), status.SerializeAsString());
  }
  rig.acquire("B");
  EXPECT_EQ(protocol::read<protocol::Response>(rig.fake->published.back().msg).value.result(),
            GetParam().answer);
}

INSTANTIATE_TEST_SUITE_P(
    Table, AStatusFound,
    testing::Values(Found{"HeldInThisBoot", "E1", "rt/E1", "this-boot", 3, {"E1 status"}, kBusy},
                    Found{"HeldInAnotherBoot", "E1", "rt/E1", "other", 3, {"E1 status"}, kAcquired},
                    Found{"NeverHeld", "E1", "rt/E1", "this-boot", 0, {"E1 removed"}, kAcquired},
                    Found{"NamingAnotherEcu", "E4", "rt/E4", "this-boot", 3, {}, kAcquired},
                    Found{"NamingAnotherEcusTopics", "E1", "rt/E2", "this-boot", 3, {}, kAcquired}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tokard::test
