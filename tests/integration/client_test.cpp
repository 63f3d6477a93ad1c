// The token client library against tokard on a private broker.
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "support/mqtt_client.h"
#include "support/process.h"
#include "tokard/token_client.h"

namespace tokard::test {
namespace {

using client::AcquireResult;
using client::ClientError;
using client::TokenClient;
using Clock = std::chrono::steady_clock;

class WithTokard : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(app.wait_for_service()) << tokard->out(); }

  client::ClientOptions options(const std::string& name, milliseconds refresh = 3s) const {
    client::ClientOptions o;
    o.client_name = name;
    o.host = "127.0.0.1";
    o.port = broker.port();
    o.refresh_period = refresh;
    return o;
  }
  std::unique_ptr<TokenClient> connected(const std::string& name, milliseconds refresh = 3s) {
    auto made = std::make_unique<TokenClient>(options(name, refresh));
    EXPECT_FALSE(made->connect());
    return made;
  }

  Broker broker;
  std::unique_ptr<Process> tokard = tokard_on(broker.port());
  MqttTestClient app{broker.port(), "app"};
};

TEST_F(WithTokard, ClientReportsBadSettingsAndAMissingBrokerAsErrorCodes) {
  struct Case {
    void (*edit)(client::ClientOptions&);
    ClientError error;
  };
  for (const Case& c :
       std::vector<Case>{{[](auto& o) { o.client_name = "a+b"; }, ClientError::InvalidClientName},
                         {[](auto& o) { o.client_name = ""; }, ClientError::InvalidClientName},
                         {[](auto& o) { o.host = ""; }, ClientError::InvalidBroker},
                         {[](auto& o) { o.port = 0; }, ClientError::InvalidBroker},
                         {[](auto& o) { o.refresh_period = 10s; }, ClientError::InvalidTiming},
                         {[](auto& o) { o.refresh_period = 0s; }, ClientError::InvalidTiming},
                         {[](auto& o) { o.answer_timeout = 0s; }, ClientError::InvalidTiming},
                         {[](auto& o) { o.port = free_port(); }, ClientError::BrokerUnreachable}}) {
    auto o = options("app");
    c.edit(o);
    const std::error_code error = TokenClient(o).connect(300ms);
    EXPECT_EQ(error, c.error) << error.message();
    EXPECT_STREQ(error.category().name(), "tokard.client");
  }
  EXPECT_EQ(std::error_code(ClientError::BrokerUnreachable).message(),
            "no connection to the broker");
  EXPECT_STREQ(client::to_string(AcquireResult::NoEcu), "no ECU");
}

TEST_F(WithTokard, ClientRenewsItsTokenAndReportsItsLoss) {
  auto holder = connected("renewer", 200ms);
  std::promise<std::pair<std::string, AcquireResult>> lost;
  holder->on_token_lost([&](const std::string& topic, AcquireResult why) {
    lost.set_value({topic, why});
  });
  ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
  EXPECT_EQ(holder->acquire("can/ECU1"), AcquireResult::NoEcu);
  const auto granted = holder->granted_at("rt/ECU1");
  ASSERT_TRUE(granted);
  EXPECT_TRUE(wait_until([&] { return holder->granted_at("rt/ECU1") > granted; }))
      << "renewed, and the renewal granted";
  // A valid group makes the next renewal Busy: the token is lost.
  app.publish("rt/ECU1", engine_state(true));
  auto why = lost.get_future();
  ASSERT_EQ(why.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(why.get(), std::make_pair(std::string("rt/ECU1"), AcquireResult::Busy));
  EXPECT_FALSE(holder->holds("rt/ECU1"));
}

TEST_F(WithTokard, ClientWaitsInLineForThePushedGrantOrLeavesItAtItsDeadline) {
  {
    auto patient = options("patient");
    patient.answer_timeout = 30s;
    TokenClient asker(patient);
    ASSERT_FALSE(asker.connect());
    const auto asked = Clock::now();
    EXPECT_EQ(asker.acquire_once("rt/ECU4"), AcquireResult::Acquired);
    EXPECT_LT(Clock::now() - asked, 10s) << "returns with the answer, not at the time-out";
    ASSERT_EQ(app.subscribe(protocol::response_topic("waiter")), 1);
    ASSERT_EQ(app.subscribe(protocol::kWaitTopic), 1);
    auto holder = connected("holder");
    ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
    ASSERT_EQ(holder->acquire("rt/ECU2"), AcquireResult::Acquired);
    auto waiter = connected("waiter", 9s);  // no renewal before the checks below
    auto pending = std::async(
        std::launch::async, [&] { return waiter->wait_for_token("rt/ECU1", Clock::now() + 10s); });
    ASSERT_TRUE(app.next(protocol::response_topic("waiter"))) << "in line";
    ASSERT_FALSE(holder->release("rt/ECU1"));
    EXPECT_FALSE(holder->holds("rt/ECU1"));
    ASSERT_EQ(pending.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(pending.get(), AcquireResult::Acquired);
    EXPECT_TRUE(waiter->holds("rt/ECU1"));

    const auto started = Clock::now();
    EXPECT_EQ(waiter->wait_for_token("rt/ECU2", started + 500ms), AcquireResult::Busy);
    EXPECT_GE(Clock::now() - started, 500ms);
    protocol::Message last;  // the waiter's last wait request: it leaves the line
    while (const auto sent = app.next(protocol::kWaitTopic, 1s)) {
      last.payload = sent->payload;
    }
    EXPECT_EQ(protocol::read<Request>(last).value.action(), Request::RELEASE);
    ASSERT_FALSE(holder->release("rt/ECU2"));
    EXPECT_TRUE(wait_until([&] { return app.ask("rt/ECU2", "", 500ms) == Response::ACQUIRED; }));
  }
  // Both destroyed: every held token was given back.
  EXPECT_EQ(app.ask("rt/ECU1"), Response::ACQUIRED);
}

}  // namespace
}  // namespace tokard::test
