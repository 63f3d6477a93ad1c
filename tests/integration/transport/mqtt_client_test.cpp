#include "lapi/com/mqtt_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "lapi/time/datetime.h"
#include "support/broker.h"
#include "support/log_capture.h"

namespace {

using namespace std::chrono_literals;
using ecu::lapi::com::Message;
using ecu::lapi::com::MqttClient;
using ecu::lapi::com::MqttOptions;
using tokard::test::LogCapture;
using tokard::test::MosquittoBroker;
using tokard::test::wait_until;

Message text_message(const std::string& text, std::uint8_t qos = 0) {
  Message msg;
  msg.qos = qos;
  msg.payload.assign(text.begin(), text.end());
  return msg;
}

std::string text_of(const Message& msg) { return {msg.payload.begin(), msg.payload.end()}; }

// Records every delivery; `during` runs inside the delivery first.
class Recorder : public ecu::lapi::com::ISubscriptionObserver,
                 public std::enable_shared_from_this<Recorder> {
 public:
  struct Received {
    std::string topic;
    Message msg;
  };

  void message(const std::string& topic, const Message& msg) override {
    if (during) {
      during();
    }
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_received.push_back({topic, msg});
    }
    m_changed.notify_all();
  }

  std::vector<Received> received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
  }
  std::size_t count() const { return received().size(); }
  std::vector<std::string> topics() const {
    std::vector<std::string> out;
    for (const auto& r : received()) {
      out.push_back(r.topic);
    }
    return out;
  }
  // Wakes on the delivery itself rather than polling: precise enough to time it.
  bool wait_for_count(std::size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, 5s, [&] { return m_received.size() >= n; });
  }

  std::function<void()> during;

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Received> m_received;
};
using Subscriptions = std::vector<std::pair<std::string, std::shared_ptr<Recorder>>>;

MqttOptions quick_retry() {
  MqttOptions options;
  options.first_retry = 50ms;
  options.longest_retry = 200ms;
  return options;
}
const MqttOptions kQuickRetry = quick_retry();

class AnMqttClient : public testing::Test {
 protected:
  // Subscribes before connecting, as the daemon does, then waits for the
  // connection.
  std::shared_ptr<MqttClient> online(const std::string& id, const Subscriptions& subscriptions,
                                     MqttOptions options = kQuickRetry) {
    auto client = std::make_shared<MqttClient>("127.0.0.1", broker.port(), id, options);
    for (const auto& [topic, observer] : subscriptions) {
      EXPECT_TRUE(client->subscribe(topic, 1, observer));
    }
    EXPECT_TRUE(client->connect());
    client->start();
    EXPECT_TRUE(wait_until([&] { return client->is_connected(); }));
    return client;
  }
  // A subscription made on another connection takes effect at some unknown
  // moment: publish until it has.
  static bool publish_until(MqttClient& from, const std::string& topic, const Recorder& to,
                            std::size_t count) {
    for (int attempt = 0; attempt < 50; ++attempt) {
      from.publish(topic, text_message("probe"));
      if (wait_until([&] { return to.count() >= count; }, 100ms)) {
        return true;
      }
    }
    return false;
  }

  MosquittoBroker broker;
};

TEST_F(AnMqttClient, DeliversPayloadQosAndReceiptTimeToASubscriptionMadeBeforeConnect) {
  auto recorder = std::make_shared<Recorder>();
  auto client = online("roundtrip", {{"test/roundtrip", recorder}});
  const std::uint64_t before = ecu::lapi::DateTime::time_since_boot_ns();

  ASSERT_TRUE(client->publish("test/roundtrip", text_message("at most once", 0)));
  ASSERT_TRUE(client->publish("test/roundtrip", text_message("at least once", 1)));

  ASSERT_TRUE(wait_until([&] { return recorder->count() == 2; }));
  const auto got = recorder->received();
  EXPECT_EQ(got[0].topic, "test/roundtrip");
  EXPECT_EQ(text_of(got[0].msg), "at most once");
  EXPECT_EQ(got[0].msg.qos, 0);
  EXPECT_EQ(text_of(got[1].msg), "at least once");
  EXPECT_EQ(got[1].msg.qos, 1);
  for (const auto& r : got) {
    EXPECT_TRUE(r.msg.timestamp_set);
    EXPECT_GE(r.msg.timestamp_ns, before);
    EXPECT_LE(r.msg.timestamp_ns, ecu::lapi::DateTime::time_since_boot_ns());
  }
}

TEST_F(AnMqttClient, LetsAnObserverSubscribePublishAndUnsubscribeFromInsideADelivery) {
  auto commands = std::make_shared<Recorder>();
  auto late = std::make_shared<Recorder>();
  auto client = online("reentrant", {{"test/commands", commands}});
  // Raw pointers: the observer must not keep the client or itself alive.
  commands->during = [client = client.get(), self = commands.get(), late] {
    client->subscribe("test/late", 1, late);
    client->publish("test/late", text_message("from inside"));
    client->unsubscribe("test/commands", self->shared_from_this());
  };

  client->publish("test/commands", text_message("go"));
  ASSERT_TRUE(wait_until([&] { return late->count() == 1; }));
  EXPECT_EQ(text_of(late->received()[0].msg), "from inside");

  client->publish("test/commands", text_message("go again"));
  client->publish("test/late", text_message("later"));
  ASSERT_TRUE(wait_until([&] { return late->count() == 2; }));
  EXPECT_EQ(commands->count(), 1u);
  EXPECT_EQ(client->subscription_count(), 1u);
}

TEST_F(AnMqttClient, DeliversOnceToEveryObserverOfATopicUntilTheLastOneLeaves) {
  auto first = std::make_shared<Recorder>();
  auto second = std::make_shared<Recorder>();
  auto marker = std::make_shared<Recorder>();
  auto client = online(
      "pair",
      {{"test/pair", first}, {"test/pair", first}, {"test/pair", second}, {"test/marker", marker}});
  // Deliveries keep their order: once the marker is in, the pair's message
  // has been delivered as often as it ever will be.
  auto round = [&](std::size_t markers) {
    client->publish("test/pair", text_message("pair"));
    client->publish("test/marker", text_message("marker"));
    return wait_until([&] { return marker->count() == markers; });
  };

  ASSERT_TRUE(round(1));
  EXPECT_EQ(first->count(), 1u);
  EXPECT_EQ(second->count(), 1u);

  EXPECT_TRUE(client->unsubscribe("test/pair", first));
  EXPECT_FALSE(client->unsubscribe("test/pair", first));
  EXPECT_EQ(client->subscription_count(), 2u);
  ASSERT_TRUE(round(2));
  EXPECT_EQ(first->count(), 1u);
  EXPECT_EQ(second->count(), 2u);

  EXPECT_TRUE(client->unsubscribe("test/pair", second));
  EXPECT_EQ(client->subscription_count(), 1u);
  ASSERT_TRUE(round(3));
  EXPECT_EQ(second->count(), 2u);
}

TEST_F(AnMqttClient, MatchesWildcardSubscriptionsAndStillDeliversOnce) {
  auto wild = std::make_shared<Recorder>();
  auto exact = std::make_shared<Recorder>();
  auto client = online("wildcard", {{"test/+/x", wild}, {"test/1/x", wild}, {"test/1/x", exact}});
  EXPECT_FALSE(client->subscribe("test/#/x", 1, wild));

  client->publish("test/1/x", text_message("one"));
  client->publish("test/2/y", text_message("two y"));
  client->publish("test/2/x", text_message("two x"));

  ASSERT_TRUE(wait_until([&] { return wild->count() == 2; }));
  EXPECT_EQ(wild->topics(), (std::vector<std::string>{"test/1/x", "test/2/x"}));
  EXPECT_EQ(exact->topics(), std::vector<std::string>{"test/1/x"});
}

TEST_F(AnMqttClient, KeepsTryingUntilALateBrokerComesUp) {
  LogCapture log;
  // A port of its own: a broker stopped right after it came up can miss the
  // SIGTERM.
  const int port = tokard::test::free_port();
  auto client = std::make_shared<MqttClient>("127.0.0.1", port, "late", kQuickRetry);
  auto recorder = std::make_shared<Recorder>();
  ASSERT_TRUE(client->subscribe("test/late", 1, recorder));

  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(client->connect());
  client->start();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 100ms);
  EXPECT_FALSE(client->publish("test/late", text_message("dropped", 0)));
  EXPECT_TRUE(client->publish("test/late", text_message("kept", 1)));
  std::this_thread::sleep_for(300ms);  // the time without a broker is what is tested
  EXPECT_FALSE(client->is_connected());

  MosquittoBroker late_broker(port);
  ASSERT_TRUE(wait_until([&] { return recorder->count() == 1; }));
  EXPECT_EQ(text_of(recorder->received()[0].msg), "kept");

  const std::string where = "127.0.0.1:" + std::to_string(port);
  EXPECT_TRUE(log.has("WARNING lapi.com.mqtt: cannot connect to " + where +
                      ": Connection refused; retrying in 50 ms"));
  EXPECT_TRUE(
      log.has("NOTICE lapi.com.mqtt: connected to " + where + " as 'late', 1 topics subscribed"));
  EXPECT_EQ(log.matching("WARNING lapi.com.mqtt: publish on 'test/late' dropped:").size(), 1u);
}

TEST_F(AnMqttClient, RestoresItsSubscriptionsAfterTheBrokerRestarts) {
  LogCapture log;
  auto recorder = std::make_shared<Recorder>();
  auto client = online("restart", {{"test/restart", recorder}}, MqttOptions{});  // 1 s back-off

  broker.stop();
  ASSERT_TRUE(wait_until([&] { return !client->is_connected(); }));
  broker.start();
  ASSERT_TRUE(wait_until([&] { return client->is_connected(); }, 10s));

  auto sender = online("sender", {});
  EXPECT_TRUE(publish_until(*sender, "test/restart", *recorder, 1));
  const std::string where = "127.0.0.1:" + std::to_string(broker.port());
  EXPECT_EQ(log.matching("WARNING lapi.com.mqtt: connection to " + where + " lost: ").size(), 1u);
  EXPECT_EQ(log.matching("NOTICE lapi.com.mqtt: connected to " + where + " as 'restart'").size(),
            2u);
}

TEST_F(AnMqttClient, LogsAndDropsPublishesItCannotSendAndKeepsWorking) {
  LogCapture log;
  auto recorder = std::make_shared<Recorder>();
  auto client = online("refusals", {{"test/fine", recorder}});

  EXPECT_FALSE(client->publish("app/+/pgn/response", text_message("x")));
  EXPECT_FALSE(client->publish("app/#", text_message("x")));
  EXPECT_FALSE(client->publish("", text_message("x")));
  EXPECT_FALSE(client->publish("test/fine", text_message("x", 3)));
  EXPECT_TRUE(client->publish("test/fine", text_message("fine")));

  ASSERT_TRUE(wait_until([&] { return recorder->count() == 1; }));
  EXPECT_TRUE(client->is_connected());
  EXPECT_TRUE(log.has(
      "WARNING lapi.com.mqtt: publish on 'app/+/pgn/response' dropped: not a valid topic name"));
  EXPECT_EQ(log.matching(" dropped: ").size(), 4u);
}

TEST_F(AnMqttClient, DeliversOnlyBetweenStartAndStop) {
  auto theirs = std::make_shared<Recorder>();
  auto witness = online("witness", {{"test/stop", theirs}});
  auto mine = std::make_shared<Recorder>();
  auto client = std::make_shared<MqttClient>("127.0.0.1", broker.port(), "stopping");
  ASSERT_TRUE(client->subscribe("test/stop", 0, mine));
  ASSERT_TRUE(client->connect());

  ASSERT_TRUE(publish_until(*witness, "test/stop", *theirs, 1));
  EXPECT_EQ(mine->count(), 0u);
  EXPECT_FALSE(client->is_running());

  client->start();
  EXPECT_TRUE(client->is_running());
  ASSERT_TRUE(publish_until(*witness, "test/stop", *mine, 1));

  const auto begin = std::chrono::steady_clock::now();
  client->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
  EXPECT_FALSE(client->is_running());
  const std::size_t seen = mine->count();
  const std::size_t target = theirs->count() + 5;
  for (int i = 0; i < 5; ++i) {
    witness->publish("test/stop", text_message("after stop"));
  }
  ASSERT_TRUE(wait_until([&] { return theirs->count() >= target; }));
  EXPECT_EQ(mine->count(), seen);
}

TEST_F(AnMqttClient, IsCreatedFromTheConfigurationAndConnectsAgainAfterADisconnect) {
  LogCapture log;
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
  auto broken = ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
  ASSERT_NE(broken, nullptr);
  EXPECT_FALSE(broken->connect());
  EXPECT_TRUE(log.has("WARNING lapi.com.mqtt: broker port '18x3' is not a port number"));
  EXPECT_TRUE(
      log.has("ERROR lapi.com.mqtt: cannot connect to 127.0.0.1:0: unusable broker address"));
}

TEST_F(AnMqttClient, ReportsTheMedianRoundTripWithTwentyThousandTopicsSubscribed) {
  auto recorder = std::make_shared<Recorder>();
  Subscriptions subscriptions{{"test/timing", recorder}};
  for (int i = 0; i < 20000; ++i) {
    subscriptions.push_back({"rt/ecu" + std::to_string(i), std::make_shared<Recorder>()});
  }
  auto client = online("timing", subscriptions);
  EXPECT_EQ(client->subscription_count(), 20001u);

  constexpr int kRounds = 200;
  std::vector<double> micros;
  for (int i = 0; i < kRounds; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    client->publish("test/timing", text_message("ping"));
    ASSERT_TRUE(recorder->wait_for_count(static_cast<std::size_t>(i) + 1));
    micros.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
            .count());
  }
  std::nth_element(micros.begin(), micros.begin() + kRounds / 2, micros.end());
  std::printf("median publish-to-delivery round trip: %.0f us over %d rounds\n",
              micros[kRounds / 2], kRounds);
}

}  // namespace
