#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "ecu/pb/rt.pb.h"
#include "lapi/com/transport.h"
#include "lapi/rt/signal_adapter.h"
#include "reqhandler/request_handler.h"
#include "support/broker.h"
#include "support/recorder.h"

using ecu::lapi::com::ITransportClient;
using ecu::lapi::com::Message;
using ecu::lapi::com::PbInternalMessageAdapter;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;
using tokard::test::MosquittoBroker;
using tokard::test::Recorder;
using tokard::test::wait_until;
using Result = PgnRequestTokenResponse::Result;

namespace {

constexpr int kNoAnswer = -1;

std::shared_ptr<ITransportClient> make_client(int port, const std::string& name) {
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  config->set("port", std::to_string(port));
  config->set("client_name", name);
  return ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
}

Message group_frame(bool valid) {
  ecu::lapi::pb::RtSignalGroup group;
  group.set_name("EngineState");
  for (const char* name : {"Speed", "Torque"}) {
    auto* signal = group.add_signals();
    signal->set_name(name);
    signal->set_data(std::string("\x05\x1a\x00\xff", 4));
    signal->set_status(valid ? 0 : 3);
  }
  auto msg = PbInternalMessageAdapter<ecu::lapi::pb::RtSignalGroup>().serialize(group).second;
  msg.qos = 1;
  return msg;
}

// tokard's request service on one transport client, and an application on
// another, both on a private broker.
class TokenService : public testing::Test {
 protected:
  void SetUp() override {
    std::istringstream definitions(
        R"({"groups": [{"topic": "rt/ECU1", "name": "EngineState", "signals": ["Speed", "Torque"]}]})");
    ASSERT_TRUE(ecu::lapi::rt::SignalAdapter::instance().load(definitions, "test definitions"));

    service = make_client(broker.port(), "tokard");
    handler = std::make_unique<tokard::RequestHandler>(service);  // subscribes before connect
    service->connect();
    service->start();

    app = make_client(broker.port(), "app");
    app->subscribe("app/+/pgn/response", 1, responses);
    app->connect();
    app->start();
    ASSERT_TRUE(wait_until([this] { return service->is_connected() && app->is_connected(); }));
    ASSERT_TRUE(wait_ready());
  }

  void TearDown() override {
    app->stop();
    service->stop();
    handler.reset();
  }

  // Publishes a request and returns the result of its answer, or kNoAnswer.
  int ask(PgnRequestTokenRequest::Action action, const std::string& topic, const std::string& client,
          std::chrono::milliseconds limit = std::chrono::seconds(2), int* qos = nullptr) {
    PgnRequestTokenRequest request;
    request.set_action(action);
    request.set_request_topic(topic);
    request.set_client_name(client);
    auto msg = PbInternalMessageAdapter<PgnRequestTokenRequest>().serialize(request).second;
    msg.qos = 1;
    const std::size_t before = responses->count();
    app->publish("system/tokard/request", msg);
    if (action != PgnRequestTokenRequest::ACQUIRE) {
      return kNoAnswer;
    }
    Recorder::Received answer;
    if (!responses->wait_for("app/" + client + "/pgn/response", before, answer, limit)) {
      return kNoAnswer;
    }
    if (qos != nullptr) {
      *qos = answer.msg.qos;
    }
    auto outcome = PbInternalMessageAdapter<PgnRequestTokenResponse>().deserialize(answer.msg);
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.value.request_topic(), topic);
    return outcome.value.result();
  }

  int acquire(const std::string& topic, const std::string& client) {
    return ask(PgnRequestTokenRequest::ACQUIRE, topic, client);
  }

  // Polls with acquires until `client` gets `expected` for `topic`.
  bool acquire_becomes(const std::string& topic, const std::string& client, int expected) {
    return wait_until([&] { return acquire(topic, client) == expected; }, std::chrono::seconds(5));
  }

  // Until both subscriptions are in place at the broker, requests go unanswered.
  bool wait_ready() {
    return wait_until(
        [this] {
          return ask(PgnRequestTokenRequest::ACQUIRE, "rt/PROBE", "probe", std::chrono::milliseconds(200)) !=
                 kNoAnswer;
        },
        std::chrono::seconds(15));
  }

  MosquittoBroker broker;
  std::shared_ptr<ITransportClient> service;
  std::unique_ptr<tokard::RequestHandler> handler;
  std::shared_ptr<ITransportClient> app;
  std::shared_ptr<Recorder> responses = std::make_shared<Recorder>();
};

using ATokenService = TokenService;

}  // namespace

TEST_F(ATokenService, GrantsRefreshesRefusesAndReleasesTheTokenOverTheBroker) {
  int qos = -1;
  EXPECT_EQ(ask(PgnRequestTokenRequest::ACQUIRE, "rt/ECU1", "app1", std::chrono::seconds(2), &qos),
            PgnRequestTokenResponse::ACQUIRED);
  EXPECT_EQ(qos, 1) << "responses leave with QoS 1";
  EXPECT_EQ(acquire("rt/ECU1", "app1"), PgnRequestTokenResponse::ACQUIRED);
  EXPECT_EQ(acquire("rt/ECU1", "app2"), PgnRequestTokenResponse::BUSY);
  EXPECT_EQ(acquire("bus/ECU1", "app2"), PgnRequestTokenResponse::NO_ECU);

  ask(PgnRequestTokenRequest::RELEASE, "rt/ECU1", "app2");
  EXPECT_EQ(acquire("rt/ECU1", "app2"), PgnRequestTokenResponse::BUSY);
  ask(PgnRequestTokenRequest::RELEASE, "rt/ECU1", "app1");
  EXPECT_EQ(acquire("rt/ECU1", "app2"), PgnRequestTokenResponse::ACQUIRED);
}

TEST_F(ATokenService, LetsAnotherClientTakeTheTokenOverAfterTenSilentSeconds) {
  EXPECT_EQ(acquire("rt/ECU1", "app1"), PgnRequestTokenResponse::ACQUIRED);
  std::this_thread::sleep_for(std::chrono::milliseconds(9500));
  EXPECT_EQ(acquire("rt/ECU1", "app2"), PgnRequestTokenResponse::BUSY);
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  EXPECT_EQ(acquire("rt/ECU1", "app2"), PgnRequestTokenResponse::ACQUIRED);
  EXPECT_EQ(acquire("rt/ECU1", "app1"), PgnRequestTokenResponse::BUSY);
}

TEST_F(ATokenService, FollowsTheSignalGroupOnBothRealTimeTopicsOfAnEcuNamedInARequest) {
  // The first acquire subscribes the ECU's topics from inside the delivery.
  EXPECT_EQ(acquire("rt/ECU1", "app1"), PgnRequestTokenResponse::ACQUIRED);
  EXPECT_TRUE(wait_until([this] { return service->subscription_count() >= 5; }));

  app->publish("rt/ECU1", group_frame(true));
  EXPECT_TRUE(acquire_becomes("rt/ECU1", "app1", PgnRequestTokenResponse::BUSY))
      << "a valid group blocks even the holder";
  EXPECT_EQ(acquire("rt/ECU1", "app2"), PgnRequestTokenResponse::BUSY);

  app->publish("rttx/ECU1", group_frame(false));
  EXPECT_TRUE(acquire_becomes("rt/ECU1", "app2", PgnRequestTokenResponse::ACQUIRED))
      << "an invalid group on the transmit topic frees the token";
}

TEST_F(ATokenService, KeepsServingAndMonitoringAfterTheBrokerRestarts) {
  EXPECT_EQ(acquire("rt/ECU1", "app1"), PgnRequestTokenResponse::ACQUIRED);
  broker.stop();
  EXPECT_TRUE(wait_until([this] { return !service->is_connected(); }));
  broker.start();
  ASSERT_TRUE(wait_until([this] { return service->is_connected() && app->is_connected(); },
                         std::chrono::seconds(40)));
  ASSERT_TRUE(wait_ready());

  EXPECT_EQ(acquire("rt/ECU1", "app2"), PgnRequestTokenResponse::BUSY) << "the holder survives the restart";
  EXPECT_EQ(acquire("rt/ECU1", "app1"), PgnRequestTokenResponse::ACQUIRED);
  app->publish("rt/ECU1", group_frame(true));
  EXPECT_TRUE(acquire_becomes("rt/ECU1", "app1", PgnRequestTokenResponse::BUSY))
      << "the ECU's topics were subscribed again";
}

TEST_F(ATokenService, AnswersWellUnderAMillisecondThroughALocalBroker) {
  std::vector<double> micros;
  for (int i = 0; i < 300; ++i) {
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(acquire("rt/ECU1", "app1"), PgnRequestTokenResponse::ACQUIRED);
    micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(micros.begin(), micros.end());
  std::printf("request round trip through the broker: median %.0f us, p90 %.0f us, max %.0f us\n",
              micros[micros.size() / 2], micros[micros.size() * 9 / 10], micros.back());
}
