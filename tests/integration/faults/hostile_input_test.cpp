#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <string>

#include "integration/faults/harness.h"

namespace tokard::test {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t k64KiB = 64 * 1024;
constexpr std::size_t k1MiB = 1024 * 1024;

Bytes garbage(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (auto& byte : bytes) {
    byte = static_cast<std::uint8_t>(random());
  }
  return bytes;
}

// tokard on a private broker, and an honest application whose acquire must
// still be answered after whatever a hostile client sent.
class HostileInput : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(honest.subscribe(response_topic("honest-app")), 1);
    ASSERT_EQ(hostile.subscribe("app/#"), 1);  // sees every answer, legible or not
    ASSERT_TRUE(wait_until([&] { return honest.acquire("rt/PROBE", "", 200ms).has_value(); }, 15s))
        << tokard.tail();
  }

  // The daemon is up and answers a normal acquire.
  void expect_still_serving() {
    ASSERT_TRUE(tokard.running()) << "exit status " << exit_status(tokard.status()) << "\n"
                                  << tokard.tail() << tokard.err();
    const auto answer = honest.acquire("rt/HONEST", "", 10s);
    ASSERT_TRUE(answer.has_value()) << tokard.tail();
    EXPECT_EQ(answer->result(), Response::ACQUIRED);
  }

  Broker broker;
  Daemon tokard{broker.port(), "INFO"};
  App honest{broker.port(), "honest-app"};
  App hostile{broker.port(), "hostile-app"};
};

using AHostileClient = HostileInput;

TEST_F(AHostileClient, GetsNamesWithSlashesAnsweredAndNamesThatCannotBeATopicLoggedAndDropped) {
  // "/" only adds levels to the response topic: answered there.
  App slashed(broker.port(), "slashed");
  ASSERT_EQ(slashed.subscribe(response_topic("a/b")), 1);
  const auto answer = slashed.acquire("rt/ECU1", "a/b");
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->result(), Response::ACQUIRED);

  // Wildcards cannot be published on: the answer is dropped, with the reason.
  for (const std::string name : {"a+b", "#", "+", "app/#"}) {
    tokard.mark();
    hostile.send(Request::ACQUIRE, "rt/ECU2", name);
    EXPECT_TRUE(tokard.wait_for_log("publish on '" + response_topic(name) +
                                    "' dropped: not a valid topic name"))
        << name << "\n"
        << tokard.tail();
  }
  expect_still_serving();
}

TEST_F(AHostileClient, GetsOversizedNamesAndTopicsLoggedAndDroppedWhereTheyCannotBeUsed) {
  // A 64 KiB name makes a response topic longer than MQTT allows.
  const std::string long_name(k64KiB, 'n');
  tokard.mark();
  hostile.send(Request::ACQUIRE, "rt/ECU1", long_name);
  EXPECT_TRUE(tokard.wait_for_log("' dropped: not a valid topic name")) << tokard.tail();
  hostile.send(Request::RELEASE, "rt/ECU1", long_name);

  // A 64 KiB topic names an ECU, but cannot be subscribed to; it is still answered.
  const std::string long_topic = "rt/" + std::string(k64KiB - 3, 'E');
  tokard.mark();
  const auto answer = hostile.acquire(long_topic, "hostile-app", 10s);
  ASSERT_TRUE(answer.has_value()) << tokard.tail();
  EXPECT_EQ(answer->request_topic(), long_topic);
  EXPECT_TRUE(tokard.wait_for_log("' with QoS 1 refused: invalid topic filter, QoS or observer"))
      << tokard.tail();

  // Both at once, and a name of a mebibyte.
  hostile.send(Request::ACQUIRE, long_topic, long_name);
  hostile.send(Request::ACQUIRE, "rt/ECU1", std::string(k1MiB, 'm'));
  expect_still_serving();
}

TEST_F(AHostileClient, GetsWildcardRequestTopicsAnsweredWithoutStoppingTheService) {
  for (const std::string topic : {"rt/#", "rt/+", "rttx/#", "rt/+/ECU1"}) {
    const auto answer = hostile.acquire(topic, "hostile-app");
    ASSERT_TRUE(answer.has_value()) << topic << "\n" << tokard.tail();
    EXPECT_EQ(answer->request_topic(), topic);
  }
  expect_still_serving();
}

TEST_F(AHostileClient, GetsAMebibyteOfGarbageOnTheRequestTopicLoggedAndDropped) {
  tokard.mark();
  hostile.publish(kRequestTopic, garbage(k1MiB, 1));
  EXPECT_TRUE(tokard.wait_for_log("ERROR tokard.reqhandler: Deserialize error occurred: "))
      << tokard.tail();

  // A sound header that announces a mebibyte of body that is not a request.
  Bytes framed = request_frame(Request::ACQUIRE, "rt/ECU1", "x");
  framed.resize(18);
  const Bytes body = garbage(k1MiB, 2);
  framed.insert(framed.end(), body.begin(), body.end());
  const std::uint64_t word = 1 | (18u << 16) | (std::uint64_t{k1MiB} << 32);
  for (int i = 0; i < 8; ++i) {
    framed[1 + i] = static_cast<std::uint8_t>(word >> (8 * i));  // fixed64 after its tag
  }
  tokard.mark();
  hostile.publish(kRequestTopic, framed);
  EXPECT_TRUE(tokard.wait_for_log("Deserialize error occurred: 5")) << tokard.tail();

  // A request of a mebibyte that parses: name and topic each half of it.
  tokard.mark();
  hostile.send(Request::ACQUIRE, "rt/" + std::string(k1MiB / 2, 'T'), std::string(k1MiB / 2, 'N'));
  EXPECT_TRUE(tokard.wait_for_log("refused: invalid topic filter")) << tokard.tail();
  expect_still_serving();
}

TEST_F(AHostileClient, GetsAMebibyteOfGarbageOnAnEcusRealTimeTopicsLoggedAndDropped) {
  const auto granted = honest.acquire("rt/ECU1");  // subscribes rt/ECU1 and rttx/ECU1
  ASSERT_TRUE(granted.has_value());
  ASSERT_EQ(granted->result(), Response::ACQUIRED);

  for (const std::string topic : {"rt/ECU1", "rttx/ECU1"}) {
    tokard.mark();
    hostile.publish(topic, garbage(k1MiB, 3));
    EXPECT_TRUE(tokard.wait_for_log("ERROR tokard.ecu: [ECU1] unable to deserialize message for " +
                                    topic))
        << tokard.tail();
  }
  // Garbage is no signal group: the holder keeps its token.
  const auto refused = hostile.acquire("rt/ECU1", "hostile-app");
  ASSERT_TRUE(refused.has_value());
  EXPECT_EQ(refused->result(), Response::BUSY);
  expect_still_serving();
}

TEST_F(AHostileClient, NamingTenThousandEcusGetsEveryOneAnsweredAndLeavesTheServiceUp) {
  constexpr int kEcus = 10'000;
  // Fewer than the broker's queue for one client (max_queued_messages, 1000
  // by default) wait at a time: past it mosquitto drops requests for tokard.
  constexpr int kWindow = 500;
  const std::string answers = response_topic("namer");
  ASSERT_EQ(hostile.subscribe(answers), 1);
  const auto start = std::chrono::steady_clock::now();
  int sent = 0;
  const bool all = wait_until(
      [&] {
        const int answered = static_cast<int>(hostile.waiting(answers));
        for (; sent < kEcus && sent - answered < kWindow; ++sent) {
          hostile.send(Request::ACQUIRE, "rt/bus/NAMED" + std::to_string(sent), "namer");
        }
        return answered >= kEcus;
      },
      60s);
  std::cout << "[          ] " << hostile.waiting(answers) << " of " << kEcus
            << " ECUs named and answered in " << ms_since(start) << " ms\n";
  EXPECT_TRUE(all) << tokard.tail();
  EXPECT_EQ(tokard.count_in_log("INFO tokard.ecucontainer: create ECU 'NAMED"),
            static_cast<std::size_t>(kEcus));
  expect_still_serving();
}

}  // namespace
}  // namespace tokard::test
