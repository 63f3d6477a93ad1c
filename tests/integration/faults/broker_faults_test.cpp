#include <gtest/gtest.h>

#include <iostream>
#include <string>

#include "integration/faults/harness.h"
#include "support/rt_frames.h"

namespace tokard::test {
namespace {

using namespace std::chrono_literals;

// Signal definitions for ECU1, in the build tree, named to tokard through
// LAPI_RT_SIGNALS.
std::string rt_signals_file() {
  return write_file(
      build_tree() + "/tests/faults_rt_signals.json",
      R"({"groups": [{"topic": "rt/ECU1", "name": "EngineState", "signals": ["Speed", "Torque"]}]})");
}

// A group is valid, and blocks the ECU, when every signal's status is 0.
Bytes engine_state(bool valid) {
  const std::string data("\x05\x1a\x00\xff", 4);
  return rt_frame("EngineState", {{"Speed", data, valid ? 0u : 3u}, {"Torque", data, 0}}).payload;
}

// Asks with fresh acquires until one is answered: the daemon is connected and
// subscribed to the request topic.
bool serves(App& app, std::chrono::milliseconds limit) {
  return wait_until([&] { return app.acquire("rt/PROBE", "", 200ms).has_value(); }, limit);
}

TEST(TheBuiltDaemon, ServesOnceABrokerThatWasNotThereAtItsStartComesUp) {
  const int port = free_port();
  Daemon tokard(port, "INFO");
  ASSERT_TRUE(tokard.wait_for_log("cannot connect to 127.0.0.1:" + std::to_string(port)))
      << tokard.tail();
  std::this_thread::sleep_for(1500ms);  // past the first retry, into the back-off
  ASSERT_TRUE(tokard.running());

  Broker broker(port);
  const auto up = std::chrono::steady_clock::now();
  App app(port, "late-app");
  ASSERT_EQ(app.subscribe(response_topic("late-app")), 1);
  ASSERT_TRUE(serves(app, 40s)) << tokard.tail();
  std::cout << "[          ] first answer " << ms_since(up) << " ms after the broker came up\n";

  const auto answer = app.acquire("rt/ECU1");
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->result(), Response::ACQUIRED);
  EXPECT_EQ(answer->request_topic(), "rt/ECU1");
}

TEST(TheBuiltDaemon, ComesBackFromABrokerKilledMidRunWithItsTokensAndEcuSubscriptions) {
  Broker broker;
  Daemon tokard(broker.port(), "INFO", {"LAPI_RT_SIGNALS=" + rt_signals_file()});
  {
    App holder(broker.port(), "holder-app");
    ASSERT_EQ(holder.subscribe(response_topic("holder-app")), 1);
    ASSERT_TRUE(serves(holder, 15s)) << tokard.tail();
    const auto granted = holder.acquire("rt/ECU1");
    ASSERT_TRUE(granted.has_value());
    ASSERT_EQ(granted->result(), Response::ACQUIRED);
  }

  tokard.mark();
  broker.kill();
  ASSERT_TRUE(tokard.wait_for_log("connection to 127.0.0.1:" + std::to_string(broker.port()) +
                                  " lost"))
      << tokard.tail();
  broker.start();
  const auto back = std::chrono::steady_clock::now();

  App holder(broker.port(), "holder-app");
  App other(broker.port(), "other-app");
  App gateway(broker.port(), "rt-gateway");
  ASSERT_EQ(holder.subscribe(response_topic("holder-app")), 1);
  ASSERT_EQ(other.subscribe(response_topic("other-app")), 1);
  ASSERT_TRUE(serves(other, 40s)) << "the request topic was not subscribed again\n"
                                  << tokard.tail();
  std::cout << "[          ] serving again " << ms_since(back) << " ms after the restart\n";
  ASSERT_TRUE(tokard.running());

  auto answer = other.acquire("rt/ECU1");
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->result(), Response::BUSY) << "the holder from before the restart was forgotten";

  // A valid group on ECU1's topic blocks even its holder, which only works if
  // the daemon subscribed that topic again.
  const bool blocked = wait_until(
      [&] {
        gateway.publish("rt/ECU1", engine_state(true));
        const auto reply = holder.acquire("rt/ECU1", "", 500ms);
        return reply && reply->result() == Response::BUSY;
      },
      10s);
  EXPECT_TRUE(blocked) << "ECU1 no longer follows rt/ECU1\n" << tokard.tail();
  EXPECT_TRUE(tokard.wait_for_log("[ECU1] Accept requests: NO 'rt/ECU1'"));

  // A group that is not valid, on the transmit topic, frees the token.
  const bool freed = wait_until(
      [&] {
        gateway.publish("rttx/ECU1", engine_state(false));
        const auto reply = other.acquire("rt/ECU1", "", 500ms);
        return reply && reply->result() == Response::ACQUIRED;
      },
      10s);
  EXPECT_TRUE(freed) << "ECU1 no longer follows rttx/ECU1\n" << tokard.tail();
  EXPECT_TRUE(tokard.running());
}

}  // namespace
}  // namespace tokard::test
