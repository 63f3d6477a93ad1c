// Clients waiting in line for a token through a real broker: grants pushed
// in join order, silent waiters skipped, leases that run out, signal groups,
// and ECUs nobody waits for served as before.
#include <gtest/gtest.h>

#include "support/mqtt_client.h"
#include "support/process.h"
#include "tokard/pb/status.pb.h"

namespace tokard::test {
namespace {

using Clock = std::chrono::steady_clock;

// A client that waits in line.
struct App : MqttTestClient {
  using MqttTestClient::MqttTestClient;
  // A wait request; for an acquire, the result of its answer (0 without).
  int line_up(const std::string& rt, Request::Action action = Request::ACQUIRE) {
    send(action, rt, "", protocol::kWaitTopic);
    return action == Request::ACQUIRE ? answer() : 0;
  }
  int answer(milliseconds limit = 5s) {
    protocol::Message msg;
    const auto got = next(protocol::response_topic(id()), limit);
    msg.payload = got ? got->payload : Bytes{};
    return got ? protocol::read<Response>(msg).value.result() : 0;
  }
};

TEST(AWaitLine, HandsTheTokenOverInJoinOrderAHundredTimesAndShowsTheLine) {
  Broker broker;
  auto tokard = tokard_on(broker.port());
  App holder(broker.port(), "holder"), outsider(broker.port(), "outsider");
  ASSERT_TRUE(holder.wait_for_service()) << tokard->out();
  ASSERT_EQ(holder.ask("rt/ECU7"), Response::ACQUIRED);
  std::vector<std::unique_ptr<App>> apps;
  for (int i = 0; i < 8; ++i) {
    apps.push_back(std::make_unique<App>(broker.port(), "w" + std::to_string(i)));
    ASSERT_EQ(apps.back()->line_up("rt/ECU7"), Response::BUSY);
  }
  App viewer(broker.port(), "viewer");
  viewer.subscribe(protocol::status_topic("ECU7"));
  ecu::lapi::com::Message status;
  status.payload = viewer.next(protocol::status_topic("ECU7")).value_or(App::Received{}).payload;
  const auto shown = protocol::read<pb::TokenStatus>(status).value.waiters();
  EXPECT_EQ(std::vector<std::string>(shown.begin(), shown.end()),
            (std::vector<std::string>{"w0", "w1", "w2", "w3", "w4", "w5", "w6", "w7"}));

  EXPECT_EQ(outsider.ask("rt/ECU7"), Response::BUSY);
  holder.send(Request::RELEASE, "rt/ECU7");
  for (int k = 0; k < 100; ++k) {
    App& next = *apps[k % 8];
    ASSERT_EQ(next.answer(), Response::ACQUIRED) << "hand-over " << k;
    EXPECT_EQ(outsider.ask("rt/ECU7"), Response::BUSY) << "nobody jumps the line";
    next.send(Request::RELEASE, "rt/ECU7");
    ASSERT_EQ(next.line_up("rt/ECU7"), Response::BUSY);
  }
  apps[5]->line_up("rt/ECU7", Request::RELEASE);           // w4 holds, w5 leaves
  ASSERT_EQ(apps[5]->ask("rt/SYNC"), Response::ACQUIRED);  // answered after the leave
  const std::size_t answered = apps[5]->count(protocol::response_topic("w5"));
  apps[4]->send(Request::RELEASE, "rt/ECU7");
  EXPECT_EQ(apps[6]->answer(), Response::ACQUIRED) << "w5 left the line";
  EXPECT_EQ(apps[5]->count(protocol::response_topic("w5")), answered);
}

TEST(AWaitLine, SkipsSilentWaitersHandsOverRunOutLeasesAndWaitsForAGroupNotValid) {
  Broker broker;
  auto tokard = tokard_on(broker.port(), "DEBUG");
  App holder(broker.port(), "holder"), silent(broker.port(), "silent"),
      patient(broker.port(), "patient"), blocked(broker.port(), "blocked"),
      other(broker.port(), "other"), gateway(broker.port(), "gw");
  ASSERT_TRUE(holder.wait_for_service()) << tokard->out();
  ASSERT_EQ(holder.ask("rt/ECU2"), Response::ACQUIRED);
  ASSERT_EQ(silent.line_up("rt/ECU2"), Response::BUSY);
  ASSERT_EQ(patient.line_up("rt/ECU2"), Response::BUSY);
  ASSERT_EQ(holder.ask("rt/PLAIN"), Response::ACQUIRED);
  // ECU1 held and blocked by a valid group, with a client in line.
  ASSERT_EQ(holder.ask("rt/ECU1"), Response::ACQUIRED);
  ASSERT_TRUE(wait_until(
      [&] { return gateway.publish("rt/ECU1", engine_state(true)) && holder.ask("rt/ECU1") == 4; },
      5s));
  ASSERT_EQ(blocked.line_up("rt/ECU1"), Response::BUSY);

  // The holder's last renewal comes after the silent waiter's last request.
  const auto renewed = Clock::now();
  ASSERT_EQ(holder.ask("rt/ECU2"), Response::ACQUIRED);
  int pushed = 0;
  for (int i = 0; i < 5 && pushed == 0; ++i) {  // waiters repeat every 3 s
    EXPECT_EQ(blocked.line_up("rt/ECU1"), Response::BUSY);
    const int answer = patient.line_up("rt/ECU2");
    pushed = answer == Response::ACQUIRED ? answer : patient.answer(3s);
  }
  const auto took = Clock::now() - renewed;
  EXPECT_EQ(pushed, Response::ACQUIRED);
  EXPECT_GT(took, 10s);
  EXPECT_LT(took, 10100ms);
  EXPECT_EQ(silent.count(protocol::response_topic("silent")), 1u) << "dropped, never granted";
  EXPECT_EQ(other.ask("rt/PLAIN"), Response::ACQUIRED) << "a take-over as ever";

  EXPECT_EQ(other.ask("rt/ECU1"), Response::BUSY) << "blocked past the lease";
  gateway.publish("rt/ECU1", engine_state(false));
  EXPECT_EQ(blocked.answer(), Response::ACQUIRED);
  EXPECT_EQ(tokard->out().find("tokard.queue: [PLAIN]"), std::string::npos);
}

}  // namespace
}  // namespace tokard::test
