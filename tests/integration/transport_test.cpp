// The MQTT transport on a private broker, seen from its observers and from
// the tests' own client.
#include "lapi/com/mqtt_client.h"

#include <gtest/gtest.h>

#include <mutex>
#include <utility>

#include "lapi/time/datetime.h"
#include "support/log_capture.h"
#include "support/mqtt_client.h"

namespace tokard::test {
namespace {

using ecu::lapi::com::Message;
using ecu::lapi::com::MqttClient;

Message text(const std::string& s, std::uint8_t qos = 1, bool retain = false) {
  Message msg;
  msg.qos = qos;
  msg.payload.assign(s.begin(), s.end());
  msg.extra_flag = retain;
  return msg;
}

// Keeps "<topic> <payload> q<qos>" of every delivery; `during` runs inside it first.
class Recorder : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& topic, const Message& msg) override {
    if (during) {
      during();
    }
    const auto now = ecu::lapi::DateTime::time_since_boot_ns();
    std::lock_guard<std::mutex> lock(m_mutex);
    stamped &=
        msg.timestamp_set && msg.timestamp_ns > 0 && msg.timestamp_ns <= now && !msg.extra_flag;
    m_seen.push_back(topic + " " + std::string(msg.payload.begin(), msg.payload.end()) + " q" +
                     std::to_string(msg.qos));
  }
  Lines seen() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_seen;
  }
  std::size_t count() const { return seen().size(); }
  std::function<void()> during;
  bool stamped = true;

 private:
  mutable std::mutex m_mutex;
  Lines m_seen;
};

class AnMqttClient : public testing::Test {
 protected:
  // Subscribes before connecting, as the daemon does, then waits for the connection.
  std::shared_ptr<MqttClient> online(
      const std::string& id,
      const std::vector<std::pair<std::string, std::shared_ptr<Recorder>>>& subs, int port = 0) {
    ecu::lapi::com::MqttOptions quick;
    quick.first_retry = 50ms;
    quick.longest_retry = 200ms;
    auto client = std::make_shared<MqttClient>("127.0.0.1", port ? port : broker.port(), id, quick);
    for (const auto& [topic, observer] : subs) {
      EXPECT_TRUE(client->subscribe(topic, 1, observer));
    }
    EXPECT_TRUE(client->connect());
    client->start();
    EXPECT_TRUE(port || wait_until([&] { return client->is_connected(); }));
    return client;
  }
  Broker broker;
};

TEST_F(AnMqttClient, DeliversOncePerObserverAndLetsObserversSubscribeFromInside) {
  auto a = std::make_shared<Recorder>(), late = std::make_shared<Recorder>();
  auto client = online("c", {{"t/+/x", a}, {"t/1/x", a}});
  a->during = [c = client.get(), late, first = true]() mutable {
    if (std::exchange(first, false)) {
      (void)c->subscribe("t/late", 0, late);  // QoS 0, sent while connected
      (void)c->publish("t/late", text("inside"));
    }
  };
  (void)client->publish("t/1/x", text("one", 0));
  ASSERT_TRUE(wait_until([&] { return late->count() == 1; }));
  EXPECT_EQ(a->seen(), Lines{"t/1/x one q0"});
  EXPECT_EQ(late->seen(), Lines{"t/late inside q0"});
  EXPECT_TRUE(a->stamped);

  EXPECT_TRUE(client->unsubscribe("t/late", late));
  (void)client->publish("t/late", text("gone"));
  (void)client->publish("t/1/x", text("marker"));
  ASSERT_TRUE(wait_until([&] { return a->count() == 2; }));
  EXPECT_EQ(late->count(), 1u) << "the broker was told";
}

TEST_F(AnMqttClient, PublishesRetainedMessagesAndReportsEveryConnect) {
  auto client = std::make_shared<MqttClient>("127.0.0.1", broker.port(), "willing");
  EXPECT_TRUE(client->set_will("t/state", text("offline", 1, true)));
  std::atomic<int> connects{0};
  client->on_connected([&] { ++connects; });
  ASSERT_TRUE(client->connect());
  client->start();
  ASSERT_TRUE(wait_until([&] { return client->is_connected() && connects == 1; }));
  EXPECT_TRUE(client->publish("t/state", text("online", 1, true)));
  MqttTestClient reader(broker.port(), "reader");
  ASSERT_EQ(reader.subscribe("t/state"), 1);
  const auto state = reader.next("t/state");
  ASSERT_TRUE(state);
  EXPECT_EQ(std::string(state->payload.begin(), state->payload.end()) +
                (state->retain ? " retained" : ""),
            "online retained");
  broker.kill();
  broker.start();
  EXPECT_TRUE(wait_until([&] { return connects == 2; }, 10s))
      << "the callback runs on every connect";
}

TEST_F(AnMqttClient, KeepsTryingUntilALateBrokerComesUpAndResubscribesAfterARestart) {
  LogCapture log;
  const int port = free_port();
  auto recorder = std::make_shared<Recorder>();
  auto client = online("late", {{"t/late", recorder}}, port);
  EXPECT_TRUE(client->publish("t/late", text("kept", 1)));
  const std::string where = "127.0.0.1:" + std::to_string(port);
  Broker late(port);
  ASSERT_TRUE(wait_until([&] { return recorder->count() == 1; }));
  EXPECT_EQ(recorder->seen(), Lines{"t/late kept q1"});

  late.stop();
  ASSERT_TRUE(wait_until([&] { return !client->is_connected(); }));
  late.start();
  MqttTestClient sender(port, "sender");
  EXPECT_TRUE(wait_until(
      [&] {
        return sender.publish("t/late", {'x'}) &&
               wait_until([&] { return recorder->count() == 2; }, 100ms);
      },
      10s));
  client->stop();
  EXPECT_FALSE(client->is_running());
  const std::size_t seen = recorder->count();
  sender.publish("t/late", {'y'});
  MqttTestClient witness(port, "witness");
  ASSERT_EQ(witness.subscribe("t/late"), 1);
  sender.publish("t/late", {'z'});
  ASSERT_TRUE(witness.next("t/late").has_value());
  EXPECT_EQ(recorder->count(), seen) << "a delivery after stop";
  EXPECT_EQ(log.matching("NOTICE lapi.com.mqtt: connected to " + where +
                         " as 'late', 1 topics subscribed")
                .size(),
            2u);
  EXPECT_EQ(log.matching("WARNING lapi.com.mqtt: connection to " + where + " lost: ").size(), 1u);
  EXPECT_EQ(log.matching("WARNING lapi.com.mqtt: connection to " + where + " back after ").size(),
            1u);
}

TEST_F(AnMqttClient, IsCreatedFromTheConfiguration) {
  LogCapture log;
  EXPECT_FALSE(MqttClient("", 1883, "nameless").connect());
  MqttClient nowhere("no-such-host.invalid", 1883, "nowhere");  // the name does not resolve
  EXPECT_TRUE(nowhere.connect());
  nowhere.start();
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  config->set("host", "127.0.0.1");
  config->set("port", std::to_string(broker.port()));
  config->set("client_name", "configured");
  EXPECT_EQ(ecu::lapi::com::create_client(config, static_cast<ecu::lapi::com::TransportType>(1)),
            nullptr);
  auto client = ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->client_id(), "configured");
  EXPECT_TRUE(client->connect());
  client->start();
  EXPECT_TRUE(wait_until([&] { return client->is_connected(); }));
  client->disconnect();
  EXPECT_TRUE(wait_until([&] { return !client->is_connected(); }));
  EXPECT_TRUE(client->connect());
  EXPECT_TRUE(wait_until([&] { return client->is_connected(); }));
  config->set("port", "18x3");
  EXPECT_FALSE(ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT)->connect());
  EXPECT_EQ(log.matching("lapi.com.mqtt: broker port").front(),
            "WARNING lapi.com.mqtt: broker port '18x3' is not a port number");
  EXPECT_EQ(log.matching("ERROR").back(),
            "ERROR lapi.com.mqtt: cannot connect to 127.0.0.1:0: unusable broker address");
  EXPECT_EQ(
      log.matching("WARNING lapi.com.mqtt: cannot connect to no-such-host.invalid:1883: ").size(),
      1u);
}

}  // namespace
}  // namespace tokard::test
