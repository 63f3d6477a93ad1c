// The retained token statuses on the fake transport: which are kept, their
// read-back at start and their republish after a reconnect.
#include <gtest/gtest.h>

#include "status/status_readback.h"
#include "status/status_republisher.h"
#include "support/fake_transport.h"
#include "tokard/pb/status.pb.h"

namespace tokard::test {
namespace {

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

TEST(AStatusReadback, HoldsRequestsUntilItsMarkerReturnsThenDecidesThemOnTheRestoredTokens) {
  auto fake = std::make_shared<FakeTransportClient>();
  RequestHandler handler(fake);
  auto publisher = std::make_shared<StatusPublisher>(fake, "this-boot");
  handler.ecu_container().set_listener(publisher);
  StatusReadback readback(fake, handler, publisher, Ecu::Clock::now());
  pb::TokenStatus status;
  status.set_ecu("E1"), status.set_holder("A"), status.set_generation(3),
      status.set_boot_id("this-boot");
  status.set_granted_unix_ms(0), status.set_blocked(false), status.add_topics("rt/E1"),
      status.add_topics("rttx/E1");
  fake->deliver("system/tokard/status/E1", protocol::frame(status));
  fake->deliver(protocol::kRequestTopic,
                protocol::request_frame(protocol::Request::ACQUIRE, "rt/E1", "B"));
  EXPECT_TRUE(fake->published.empty()) << "the request waits for the read-back";
  fake->connected = true;
  readback.connected();
  readback.remind();
  ASSERT_EQ(fake->published.size(), 2u) << "the marker, and again in case the broker dropped it";
  fake->deliver(protocol::kReadbackTopic, fake->published[0].msg);
  fake->deliver(protocol::kRequestTopic,
                protocol::request_frame(protocol::Request::ACQUIRE, "rt/E2", "C"));
  std::vector<std::string> topics;
  std::transform(fake->published.begin(), fake->published.end(), std::back_inserter(topics),
                 [](auto& p) { return p.topic; });
  EXPECT_EQ(topics, (std::vector<std::string>{"system/tokard/readback", "system/tokard/readback",
                                              "system/tokard/status/E1", "app/B/pgn/response",
                                              "system/tokard/status/E2", "app/C/pgn/response"}));
  const auto restored = protocol::read<pb::TokenStatus>(fake->published[2].msg);
  EXPECT_EQ(restored.value.SerializeAsString(), status.SerializeAsString());
  EXPECT_EQ(protocol::read<protocol::Response>(fake->published[3].msg).value.result(),
            protocol::Response::BUSY);
  EXPECT_EQ(fake->observers.count(protocol::kStatusFilter), 0u) << "withdrawn";
  EXPECT_EQ(fake->observers.count("rttx/E1"), 1u) << "the restored record follows its topics";
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
  readback.connected();
  rig.acquire("B");
  now += StatusReadback::kLongest;
  rig.acquire("C");
  EXPECT_EQ(rig.fake->published.size(), 1u) << "only the marker: both requests wait";
  now += std::chrono::milliseconds(1);
  rig.acquire("D");
  EXPECT_EQ(sent(*rig.fake),
            (std::vector<std::string>{protocol::kReadbackTopic, "E1 status", "app/B/pgn/response",
                                      "app/C/pgn/response", "app/D/pgn/response"}));
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
  status.add_topics(GetParam().topic);
  status.add_topics(protocol::tx_topic(GetParam().topic));
  rig.fake->deliver(protocol::status_topic("E1"), protocol::frame(status));
  rig.fake->deliver(protocol::kReadbackTopic, rig.fake->published.front().msg);
  rig.fake->published.erase(rig.fake->published.begin());
  EXPECT_EQ(sent(*rig.fake), GetParam().sent);
  rig.acquire("B");
  EXPECT_EQ(protocol::read<protocol::Response>(rig.fake->published.back().msg).value.result(),
            GetParam().answer);
}

constexpr int kBusy = protocol::Response::BUSY, kAcquired = protocol::Response::ACQUIRED;
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
