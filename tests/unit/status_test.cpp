// The read-back of retained token statuses at start, on the fake transport.
#include <gtest/gtest.h>

#include "status/status_readback.h"
#include "support/fake_transport.h"
#include "tokard/pb/status.pb.h"

namespace tokard::test {
namespace {

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
  fake->observers.at(protocol::kStatusFilter)[0]->message("system/tokard/status/E1",
                                                          protocol::frame(status));
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

}  // namespace
}  // namespace tokard::test
