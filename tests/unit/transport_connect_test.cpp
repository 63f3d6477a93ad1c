// The transport's connect policy: where it connects next, how long it waits,
// and what it logs, through a fake libmosquitto and clock.
#include <gtest/gtest.h>

#include "lapi/com/connect_policy.h"
#include "support/fake_mosquitto.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

using ecu::lapi::com::ConnectPolicy;
using std::chrono::milliseconds;

class AConnectPolicy : public testing::Test {
 protected:
  ConnectPolicy::Delay fail_round() {
    static_cast<void>(policy.next_address());
    policy.attempt_started();
    return policy.loop_failed("Connection refused");
  }
  MosquittoScript script;
  FakeMosquitto lib{script};
  ConnectPolicy::Clock::time_point now{std::chrono::hours(1)};
  ConnectPolicy policy{
      lib, "broker", 1883, milliseconds(50), milliseconds(300), [this] { return now; }};
  const std::string kWhere = "lapi.com.mqtt: cannot connect to broker:1883: ";
};

TEST_F(AConnectPolicy, TriesEveryAddressOfTheNameBeforeItWaits) {
  script.names["broker"] = {"::1", "127.0.0.1", "10.0.0.7"};
  std::vector<std::string> tried;
  for (int attempt = 0; attempt < 4; ++attempt) {
    tried.push_back(policy.next_address());
    policy.attempt_started();
    const auto delay = policy.attempt_failed("Network is unreachable");
    EXPECT_EQ(delay.has_value(), attempt == 2) << attempt;
  }
  EXPECT_EQ(tried, (std::vector<std::string>{"::1", "127.0.0.1", "10.0.0.7", "::1"}));
  EXPECT_EQ(matching(script.calls, "resolve").size(), 2u) << "once per round";
  script.names.clear();
  policy.acknowledged(0);
  EXPECT_EQ(policy.next_address(), "broker") << "an unknown name is left to libmosquitto";
}

TEST_F(AConnectPolicy, DoublesItsWaitUpToTheLongestAndStartsAgainAfterAConnect) {
  LogCapture log;
  std::vector<long long> waits;
  for (int round = 0; round < 5; ++round) {
    waits.push_back(fail_round().value().count());
  }
  policy.attempt_started();
  policy.acknowledged(0);
  waits.push_back(fail_round().value().count());
  EXPECT_EQ(waits, (std::vector<long long>{50, 100, 200, 300, 300, 50}));
  EXPECT_EQ(log.matching(kWhere),
            (Lines{"WARNING " + kWhere + "Connection refused; retrying in 50 ms",
                   "INFO " + kWhere + "Connection refused; retrying in 100 ms",
                   "INFO " + kWhere + "Connection refused; retrying in 200 ms",
                   "INFO " + kWhere + "Connection refused; retrying in 300 ms",
                   "INFO " + kWhere + "Connection refused; retrying in 300 ms",
                   "WARNING " + kWhere + "Connection refused; retrying in 50 ms"}));
}

TEST_F(AConnectPolicy, LogsARefusalOnlyForItsOwnAttemptAndHowLongALossLasted) {
  LogCapture log;
  policy.attempt_started();
  policy.acknowledged(5);
  EXPECT_EQ(policy.loop_failed("Connection reset by peer"), milliseconds(50));
  EXPECT_EQ(fail_round(), milliseconds(100));
  policy.attempt_started();
  policy.acknowledged(0);
  policy.ended(MOSQ_ERR_CONN_LOST, true);
  EXPECT_EQ(policy.loop_failed("The connection was lost."), milliseconds(50));
  EXPECT_EQ(fail_round(), milliseconds(100));
  now += milliseconds(12460);
  policy.attempt_started();
  policy.acknowledged(0);
  policy.ended(MOSQ_ERR_SUCCESS, true);
  EXPECT_EQ(
      log.matching("lapi.com.mqtt: "),
      (Lines{"WARNING " + kWhere + "refused by the broker: " + mosquitto_connack_string(5) +
                 "; retrying in 50 ms",
             "INFO " + kWhere + "Connection refused; retrying in 100 ms",
             "WARNING lapi.com.mqtt: connection to broker:1883 lost: The connection was lost.",
             "INFO lapi.com.mqtt: reconnecting to broker:1883 in 50 ms",
             "INFO " + kWhere + "Connection refused; retrying in 100 ms",
             "WARNING lapi.com.mqtt: connection to broker:1883 back after 12.5 s",
             "INFO lapi.com.mqtt: disconnected from broker:1883"}));
}

}  // namespace
}  // namespace tokard::test
