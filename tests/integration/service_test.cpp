// tokard serving applications through a real broker: the token protocol, the
// signal groups, broker faults, hostile input and a stop under load.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/mqtt_client.h"
#include "support/process.h"

namespace tokard::test {
namespace {

TEST(TheService, GrantsRefusesAndFreesTokensAndFollowsBothRealTimeTopicsAcrossABrokerRestart) {
  Broker broker;
  auto tokard = tokard_on(broker.port());
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "first broker" : "after a broker restart");
    MqttTestClient holder(broker.port(), "holder"), other(broker.port(), "other"),
        gateway(broker.port(), "gw");
    ASSERT_TRUE(other.wait_for_service(40s)) << tokard->out();
    // Who holds the token, and who waits: "other" since the end of round one.
    MqttTestClient& owner = round == 0 ? holder : other;
    MqttTestClient& waiter = round == 0 ? other : holder;
    EXPECT_EQ(owner.ask("rt/ECU1"), Response::ACQUIRED);
    EXPECT_EQ(waiter.ask("rt/ECU1"), Response::BUSY) << "the holder was forgotten";
    // A valid group on rt/ECU1 blocks even the holder; one that is not valid,
    // on rttx/ECU1, frees the token. Subscriptions take effect at some
    // moment, so publish until they have.
    EXPECT_TRUE(wait_until(
        [&] {
          return gateway.publish("rt/ECU1", engine_state(true)) &&
                 owner.ask("rt/ECU1", "", 500ms) == Response::BUSY;
        },
        10s));
    EXPECT_TRUE(wait_until(
        [&] {
          return gateway.publish("rttx/ECU1", engine_state(false)) &&
                 waiter.ask("rt/ECU1", "", 500ms) == Response::ACQUIRED;
        },
        10s));
    if (round == 0) {
      broker.kill();
      ASSERT_TRUE(tokard->wait_for_out("connection to 127.0.0.1:" + std::to_string(broker.port()) +
                                       " lost"));
      broker.start();
    }
  }
}

// Whatever a hostile client sends, tokard logs what it drops and goes on.
TEST(TheService, LogsAndDropsHostileInputAndKeepsServing) {
  Broker broker;
  auto tokard = tokard_on(broker.port());
  MqttTestClient honest(broker.port(), "honest"), hostile(broker.port(), "hostile");
  ASSERT_TRUE(honest.wait_for_service()) << tokard->out();
  ASSERT_EQ(honest.ask("rt/ECU1"), Response::ACQUIRED);
  const Bytes garbage(1 << 20, 0xA5);
  struct Case {
    std::string topic;
    Bytes payload;
    std::string line;
  };
  for (const Case& c : std::vector<Case>{
           {protocol::kRequestTopic, garbage,
            "ERROR tokard.reqhandler: Deserialize error occurred: "},
           {protocol::kRequestTopic,
            protocol::request_frame(Request::ACQUIRE, "rt/ECU2", "a+b").payload,
            "publish on 'app/a+b/pgn/response' dropped: not a valid topic name"},
           {protocol::kRequestTopic,
            protocol::request_frame(Request::ACQUIRE, "rt/" + std::string(65536, 'n'), "x").payload,
            "' with QoS 1 refused: invalid topic filter, QoS or observer"},
           {protocol::kRequestTopic, protocol::request_frame(Request::ACQUIRE, "rt/#", "x").payload,
            "INFO tokard.reqhandler.acquire: Token acquired for '#' on rt/# by x"},
           {"rt/ECU1", garbage,
            "ERROR tokard.ecu: [ECU1] unable to deserialize message for rt/ECU1\n"}}) {
    const std::size_t from = tokard->out().size();
    ASSERT_TRUE(hostile.publish(c.topic, c.payload));
    EXPECT_TRUE(tokard->wait_for_out(c.line, 10s, from)) << c.line << "\n"
                                                         << tokard->out().substr(from);
  }
  EXPECT_EQ(hostile.ask("rt/ECU1"), Response::BUSY)
      << "garbage is no signal group: the holder keeps its token";
}

TEST(TheService, StopsWithStatusZeroOnSigtermUnderLoadAndLogsNothingAfter) {
  Broker broker;
  auto tokard = tokard_on(broker.port(), "DEBUG");
  MqttTestClient probe(broker.port(), "probe");
  ASSERT_TRUE(probe.wait_for_service()) << tokard->out();
  std::atomic<bool> stop{false};
  std::atomic<long> answers{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([&, i] {
      MqttTestClient app(broker.port(), "busy-" + std::to_string(i));
      for (int k = 0; !stop && k < 100000; ++k) {
        answers += app.acquire("rt/ECU" + std::to_string(k % 8), "", 500ms).has_value();
      }
    });
  }
  const bool loaded = wait_until([&] { return answers >= 500; }, 20s);
  for (int i = 0; i < 2000; ++i) {
    probe.publish(protocol::kRequestTopic,
                  protocol::request_frame(Request::ACQUIRE, "rt/ECU0", "flood").payload, 0);
  }
  ASSERT_TRUE(tokard->signal(SIGTERM));
  const auto status = tokard->wait(2s);
  stop = true;
  for (auto& worker : workers) {
    worker.join();
  }
  ASSERT_TRUE(loaded);
  EXPECT_EQ(status, 0) << tokard->err();
  const std::string out = tokard->out(), last = "DEBUG tokard.daemon: ... stopped!\n";
  ASSERT_GE(out.size(), last.size());
  EXPECT_EQ(out.substr(out.size() - last.size()), last);
  EXPECT_EQ(tokard->err(), "");
}

}  // namespace
}  // namespace tokard::test
