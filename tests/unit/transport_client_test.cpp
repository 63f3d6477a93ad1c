// The MQTT transport's own decisions, on a fake libmosquitto: which packets
// go out when, and why a publish is dropped.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "lapi/com/mqtt_client.h"
#include "support/broker.h"
#include "support/fake_mosquitto.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

using ecu::lapi::com::Message;
using ecu::lapi::com::MqttClient;

class Nobody : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& /*topic*/, const Message& /*msg*/) override {}
};

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
                                 "loop", "loop", "disconnect"}));
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
        PublishCase{"t/x", 0, true, MOSQ_ERR_SUCCESS, true, ""},
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

}  // namespace
}  // namespace tokard::test
