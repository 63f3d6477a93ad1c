// The MQTT transport's own decisions, on a fake libmosquitto and clock: who a
// received message goes to, which packets go out when, why a publish is
// dropped, and where it connects next, how long it waits and what it logs.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "lapi/com/connect_policy.h"
#include "lapi/com/mqtt_client.h"
#include "lapi/com/observer_registry.h"
#include "support/broker.h"
#include "support/fake_mosquitto.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

using ecu::lapi::com::ConnectPolicy;
using ecu::lapi::com::Message;
using ecu::lapi::com::MqttClient;
using ecu::lapi::com::ObserverRegistry;
using Observers = std::vector<ObserverRegistry::ObserverPtr>;
using std::chrono::milliseconds;

class Nobody : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& /*topic*/, const Message& /*msg*/) override {}
};

struct Match {
  std::string filter, topic;
  bool delivered;
};

class ARegistryFilter : public testing::TestWithParam<Match> {};

TEST_P(ARegistryFilter, ReachesTheTopicsTheBrokerWouldSendIt) {
  ObserverRegistry registry;
  const auto observer = std::make_shared<Nobody>();
  ASSERT_EQ(registry.add(GetParam().filter, 1, observer), 1);
  Observers found;
  registry.observers_of(GetParam().topic, found);
  EXPECT_EQ(found.size(), GetParam().delivered ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Filters, ARegistryFilter,
    testing::Values(Match{"rt/E1", "rt/E1", true}, Match{"rt/E1", "rt/E2", false},
                    Match{"rt/E1", "rt/E1/x", false}, Match{"rt/+", "rt/E1", true},
                    Match{"rt/+", "rt/", true}, Match{"rt/+", "rt/E1/x", false},
                    Match{"rt/+", "rttx/E1", false}, Match{"+/+/x", "a/b/x", true},
                    Match{"app/#", "app", true}, Match{"app/#", "app/B/pgn/response", true},
                    Match{"#", "system/tokard/status/E1", true}, Match{"#", "$SYS/uptime", false},
                    Match{"+/uptime", "$SYS/uptime", false}, Match{"$SYS/#", "$SYS/uptime", true}));

class ARegistry : public testing::Test {
 protected:
  Observers of(const std::string& topic) {
    registry.observers_of(topic, found);
    return found;
  }
  ObserverRegistry registry;
  Observers found;  // reused, as the delivery thread reuses its list
  const ObserverRegistry::ObserverPtr a = std::make_shared<Nobody>(),
                                      b = std::make_shared<Nobody>();
};

TEST_F(ARegistry, GivesEachObserverOfATopicTheMessageOnceInTheOrderTheySubscribed) {
  EXPECT_EQ(registry.add("t/x", 1, a), 1);
  EXPECT_EQ(registry.add("t/x", 0, b), ObserverRegistry::kNothingToSend) << "QoS 1 asked already";
  EXPECT_EQ(registry.add("t/+", 2, a), 2);
  EXPECT_EQ(registry.add("t/+", 0, a), ObserverRegistry::kNothingToSend) << "a pair once";
  EXPECT_EQ(registry.add("t/x", 2, b), 2) << "a higher QoS is asked for again";
  EXPECT_EQ(of("t/x"), (Observers{a, b}));
  EXPECT_EQ(of("t/y"), Observers{a});
  EXPECT_EQ(of("u/y"), Observers{}) << "the list of the last delivery is gone";
  EXPECT_EQ(registry.size(), 2u);
}

TEST_F(ARegistry, KeepsTheOtherObserverOfATopicWhicheverIsRemoved) {
  for (const auto& [gone, kept] : {std::pair{a, b}, std::pair{b, a}}) {
    ASSERT_EQ(registry.add("t/+", 1, a), 1);
    ASSERT_EQ(registry.add("t/+", 1, b), ObserverRegistry::kNothingToSend);
    const auto first = registry.remove("t/+", gone);
    EXPECT_EQ(first.observer, gone);
    EXPECT_FALSE(first.last);
    EXPECT_EQ(of("t/x"), Observers{kept});
    EXPECT_EQ(registry.remove("t/+", gone).observer, nullptr) << "removed already";
    EXPECT_TRUE(registry.remove("t/+", kept).last);
    EXPECT_EQ(of("t/x"), Observers{});
  }
  EXPECT_EQ(registry.remove("t/never", a).observer, nullptr);
}

class AnMqttClientOnAFakeLibrary : public testing::Test {
 protected:
  MosquittoScript script;
  std::unique_ptr<MqttClient> client = std::make_unique<MqttClient>(
      "broker", 1883, "c", ecu::lapi::com::MqttOptions{}, std::make_unique<FakeMosquitto>(script));
  std::shared_ptr<Nobody> observer = std::make_shared<Nobody>();
};

TEST_F(AnMqttClientOnAFakeLibrary, SubscribesAfterTheConnackInPacketsOfAtMost64) {
  int ready = 0;
  client->on_connected([&] { ++ready; });
  for (int i = 0; i < 130; ++i) {
    ASSERT_TRUE(client->subscribe("t/" + std::to_string(i), 1, observer));
  }
  ASSERT_TRUE(client->subscribe("u", 0, observer));
  EXPECT_EQ(matching(script.calls, "subscribe"), Lines{}) << "nothing before the CONNECT";
  script.events->on_connect(0);
  std::vector<long> topics;
  for (const auto& call : matching(script.calls, "subscribe_multiple")) {
    topics.push_back(std::count(call.begin(), call.end(), ' ') - 1);
  }
  EXPECT_EQ(topics, (std::vector<long>{64, 64, 1, 2}));
  for (int mid = 4; mid > 0; --mid) {
    EXPECT_EQ(ready, 0) << "SUBACKs outstanding";
    script.events->on_subscribe(mid);
  }
  EXPECT_EQ(ready, 1);
}

TEST_F(AnMqttClientOnAFakeLibrary, SendsAtOnceWhileConnectedAndSaysGoodbyeOnceAllIsAcknowledged) {
  EXPECT_FALSE(client->subscribe("t/#/x", 1, observer));
  EXPECT_FALSE(client->subscribe("t/c", 3, observer));
  EXPECT_FALSE(client->subscribe("t/c", 1, nullptr));
  int ready = 0;
  client->on_connected([&] { ++ready; });
  script.socket = 7;
  script.events->on_connect(0);
  EXPECT_EQ(ready, 1) << "nothing to wait for";
  const auto other = std::make_shared<Nobody>();
  ASSERT_TRUE(client->subscribe("t/c", 2, observer));
  ASSERT_TRUE(client->subscribe("t/c", 1, other));
  EXPECT_TRUE(client->unsubscribe("t/c", other));
  EXPECT_EQ(script.calls.back(), "subscribe t/c q2") << "t/c is still observed";
  EXPECT_TRUE(client->unsubscribe("t/c", observer));
  EXPECT_FALSE(client->unsubscribe("t/c", observer));
  const int unsubscribed = script.last_mid;
  Message msg;
  msg.qos = 1;
  script.rc["publish"] = MOSQ_ERR_PAYLOAD_SIZE;
  ASSERT_FALSE(client->publish("t/c", msg)) << "refused: no acknowledgement to wait for";
  script.rc.erase("publish");
  ASSERT_TRUE(client->publish("t/c", msg));
  script.on_loop = [&, published = script.last_mid, pass = 0]() mutable {
    if (pass++ == 0) {
      script.events->on_unsubscribe(unsubscribed);
    } else {
      script.events->on_publish(published);
    }
  };
  client.reset();
  EXPECT_EQ(script.calls, (Lines{"create", "subscribe t/c q2", "unsubscribe t/c", "publish t/c q1",
                                 "publish t/c q1", "loop", "loop", "disconnect"}));
}

class Recorder : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& topic, const Message& msg) override {
    std::lock_guard<std::mutex> lock(mutex);
    seen.push_back(topic + " " + std::string(msg.payload.begin(), msg.payload.end()));
  }
  std::mutex mutex;
  Lines seen;
};

TEST_F(AnMqttClientOnAFakeLibrary, DeliversAfterThePassAndNothingOfAConnectionBeforeItsCallback) {
  const auto recorder = std::make_shared<Recorder>();
  ASSERT_TRUE(client->subscribe("t/#", 1, recorder));
  std::atomic<int> passes{0};
  Lines before_callback, during_pass;
  client->on_connected([&] {
    std::lock_guard<std::mutex> lock(recorder->mutex);
    before_callback = recorder->seen;
  });
  script.on_loop = [&] {
    const int pass = passes++;
    if (pass > 1) {
      return;
    }
    if (pass == 0) {
      script.events->on_connect(0);
    } else {
      script.events->on_subscribe(script.last_mid);
    }
    char topic[] = "t/a";
    char full[] = "full";
    char* payload = pass == 0 ? full : nullptr;  // the second reuses the first's storage
    mosquitto_message raw{1, topic, payload, payload ? 4 : 0, 1, false};
    script.events->on_message(raw);
    script.events->on_message(raw);
    std::lock_guard<std::mutex> lock(recorder->mutex);
    during_pass = recorder->seen;
  };
  script.socket = 7;
  ASSERT_TRUE(client->connect());
  client->start();
  ASSERT_TRUE(wait_until([&] { return passes >= 3; }));
  client->stop();
  EXPECT_EQ(before_callback, Lines{}) << "the SUBACK came in the second pass";
  EXPECT_EQ(during_pass, Lines{}) << "no observer runs while libmosquitto holds its locks";
  EXPECT_EQ(recorder->seen, (Lines{"t/a full", "t/a full", "t/a ", "t/a "}));
}

TEST(TheMosquittoLibrary, ResolvesANameToItsAddresses) {
  EXPECT_EQ(ecu::lapi::com::make_mosquitto()->resolve("127.0.0.1"), Lines{"127.0.0.1"});
}

TEST(AnMqttClient, WithAnIdLibmosquittoRefusesNeitherConnectsNorPublishes) {
  LogCapture log;
  MqttClient client("localhost", 1883, "\xff");
  EXPECT_FALSE(client.connect());
  EXPECT_FALSE(client.publish("t/x", Message{}));
  EXPECT_EQ(log.matching("cannot create").size(), 1u);
}

TEST_F(AnMqttClientOnAFakeLibrary, SaysWhenALostConnectionIsBack) {
  LogCapture log;
  script.events->on_connect(0);
  script.events->on_disconnect(MOSQ_ERR_CONN_LOST);
  script.events->on_connect(0);
  EXPECT_EQ(log.matching("connection to broker:1883 back after").size(), 1u);
}

TEST_F(AnMqttClientOnAFakeLibrary, SaysWhyItRefusesAWill) {
  LogCapture log;
  Message msg;
  EXPECT_TRUE(client->set_will("t/state", msg));
  EXPECT_FALSE(client->set_will("t/+", msg));
  EXPECT_EQ(log.matching("will on"), Lines{"WARNING lapi.com.mqtt: will on 't/+' refused: " +
                                           std::string(mosquitto_strerror(MOSQ_ERR_INVAL))});
}

TEST_F(AnMqttClientOnAFakeLibrary, LogsARefusalForItsOwnAttemptOnlyAndBacksOffOnItsLoopThread) {
  ecu::lapi::com::MqttOptions quick;
  quick.first_retry = 10ms;
  client = std::make_unique<MqttClient>("broker", 1883, "c", quick,
                                        std::make_unique<FakeMosquitto>(script));
  LogCapture log;
  std::atomic<int> attempts{0};
  script.rc["loop"] = MOSQ_ERR_CONN_REFUSED;
  script.on_loop = [&] {
    if (attempts++ == 0) {
      script.events->on_connect(5);
    }
  };
  ASSERT_TRUE(client->connect());
  client->start();
  ASSERT_TRUE(wait_until([&] { return attempts >= 2; }));
  client->stop();
  auto failures = log.matching("cannot connect to broker:1883: ");
  failures.resize(2);
  EXPECT_EQ(failures, (Lines{"WARNING lapi.com.mqtt: cannot connect to broker:1883: refused by the "
                             "broker: " +
                                 std::string(mosquitto_connack_string(5)) + "; retrying in 10 ms",
                             "INFO lapi.com.mqtt: cannot connect to broker:1883: " +
                                 std::string(mosquitto_strerror(MOSQ_ERR_CONN_REFUSED)) +
                                 "; retrying in 20 ms"}));
  EXPECT_EQ(matching(script.calls, "connect_async")[0], "connect_async broker:1883");
}

struct PublishCase {
  std::string topic;
  int qos;
  bool connected;
  int rc;  // libmosquitto's answer
  bool accepted;
  std::string logged;  // after "publish on '<topic>' "
};

class APublish : public AnMqttClientOnAFakeLibrary,
                 public testing::WithParamInterface<PublishCase> {};

TEST_P(APublish, IsDroppedWithTheReasonALibraryOrBrokerGives) {
  const PublishCase& c = GetParam();
  if (c.connected) {
    script.events->on_connect(0);
  }
  script.rc["publish"] = c.rc;
  LogCapture log;
  Message msg;
  msg.qos = static_cast<std::uint8_t>(c.qos);
  EXPECT_EQ(client->publish(c.topic, msg), c.accepted);
  const std::string level = c.accepted ? "DEBUG" : "WARNING";
  EXPECT_EQ(log.matching("publish on"),
            c.logged.empty()
                ? Lines{}
                : Lines{level + " lapi.com.mqtt: publish on '" + c.topic + "' " + c.logged});
}

std::string dropped(const std::string& why) { return "dropped: " + why; }
INSTANTIATE_TEST_SUITE_P(
    Reasons, APublish,
    testing::Values(
        PublishCase{"t/x", 1, true, MOSQ_ERR_SUCCESS, true, ""},
        PublishCase{"t/+", 1, true, MOSQ_ERR_INVAL, false, dropped("not a valid topic name")},
        PublishCase{"t/\xff", 1, true, MOSQ_ERR_MALFORMED_UTF8, false,
                    dropped("not a valid topic name")},
        PublishCase{"", 1, true, MOSQ_ERR_SUCCESS, false, dropped("not a valid topic name")},
        PublishCase{"t/x", 3, true, MOSQ_ERR_INVAL, false,
                    dropped(mosquitto_strerror(MOSQ_ERR_INVAL))},
        PublishCase{"t/x", 0, false, MOSQ_ERR_SUCCESS, false,
                    dropped(mosquitto_strerror(MOSQ_ERR_NO_CONN))},
        PublishCase{"t/x", 1, false, MOSQ_ERR_NO_CONN, true, "held until the broker is back"},
        PublishCase{"t/x", 1, true, MOSQ_ERR_PAYLOAD_SIZE, false,
                    dropped(mosquitto_strerror(MOSQ_ERR_PAYLOAD_SIZE))}));

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
  EXPECT_EQ(log.matching(kWhere).size(), 6u);
  EXPECT_EQ(log.matching("WARNING"),
            Lines(2, "WARNING " + kWhere + "Connection refused; retrying in 50 ms"))
      << "the first failure after a connect warns";
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
