// The MQTT transport on a private broker: what only the real library and a
// real broker show. Its own decisions have unit tests on a fake library.
#include "lapi/com/mqtt_client.h"

#include <gtest/gtest.h>

#include <mutex>

#include "lapi/time/datetime.h"
#include "support/broker.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

using ecu::lapi::com::Message;
using ecu::lapi::com::MqttClient;

// Keeps "<topic> <payload> q<qos>" of every delivery.
class Recorder : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& topic, const Message& msg) override {
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
  bool stamped = true;

 private:
  mutable std::mutex m_mutex;
  Lines m_seen;
};

TEST(AnMqttClient, KeepsTryingUntilALateBrokerComesUp) {
  LogCapture log;
  MqttClient nowhere("no-such-host.invalid", 1883, "nowhere");  // the name does not resolve
  EXPECT_TRUE(nowhere.connect());
  nowhere.start();
  const int port = free_port();
  ecu::lapi::com::MqttOptions quick;
  quick.first_retry = 50ms;
  quick.longest_retry = 200ms;
  MqttClient client("127.0.0.1", port, "late", quick);
  auto recorder = std::make_shared<Recorder>();
  ASSERT_TRUE(client.subscribe("t/late", 1, recorder));
  ASSERT_TRUE(client.connect());
  client.start();
  Message kept;
  kept.qos = 1;
  kept.payload = {'k'};
  EXPECT_TRUE(client.publish("t/late", kept));
  Broker late(port);
  ASSERT_TRUE(wait_until([&] { return !recorder->seen().empty(); }));
  EXPECT_EQ(recorder->seen(), Lines{"t/late k q1"});
  EXPECT_TRUE(recorder->stamped);
  EXPECT_EQ(log.matching("NOTICE lapi.com.mqtt: connected to 127.0.0.1:" + std::to_string(port) +
                         " as 'late', 1 topics subscribed")
                .size(),
            1u);
  EXPECT_EQ(
      log.matching("WARNING lapi.com.mqtt: cannot connect to no-such-host.invalid:1883: ").size(),
      1u);
}

TEST(AnMqttClient, RefusesAnAddressItCannotUse) {
  LogCapture log;
  EXPECT_FALSE(MqttClient("", 1883, "nameless").connect());
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  config->set("host", "127.0.0.1");
  config->set("port", "18x3");
  EXPECT_EQ(ecu::lapi::com::create_client(config, static_cast<ecu::lapi::com::TransportType>(1)),
            nullptr);
  EXPECT_FALSE(ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT)->connect());
  EXPECT_EQ(log.matching("lapi.com.mqtt: broker port").front(),
            "WARNING lapi.com.mqtt: broker port '18x3' is not a port number");
  EXPECT_EQ(log.matching("ERROR").back(),
            "ERROR lapi.com.mqtt: cannot connect to 127.0.0.1:0: unusable broker address");
}

}  // namespace
}  // namespace tokard::test
