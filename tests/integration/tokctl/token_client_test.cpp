#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "integration/tokctl/tokard_fixture.h"
#include "lapi/com/transport.h"
#include "support/recorder.h"
#include "support/rt_frames.h"
#include "tokard/token_client.h"

namespace tokard::test {
namespace {

using client::AcquireResult;
using client::ClientError;
using client::ClientOptions;
using client::TokenClient;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

class TokenClientTest : public TokardOnBroker {
 protected:
  ClientOptions options(const std::string& name) const {
    ClientOptions o;
    o.client_name = name;
    o.host = "127.0.0.1";
    o.port = broker.port();
    return o;
  }

  std::unique_ptr<TokenClient> connected(ClientOptions o) {
    auto made = std::make_unique<TokenClient>(std::move(o));
    const std::error_code error = made->connect();
    EXPECT_FALSE(error) << error.message();
    return made;
  }

  // A plain client on the broker, for what tokard sees and for signal groups.
  std::shared_ptr<ecu::lapi::com::ITransportClient> bus(
      const std::string& topic = "", std::shared_ptr<Recorder> recorder = nullptr) {
    auto config = std::make_unique<ecu::lapi::config::Configuration>();
    config->set("host", "127.0.0.1");
    config->set("port", port_text());
    config->set("client_name", "test-bus");
    auto made = ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
    if (recorder) {
      made->subscribe(topic, 1, recorder);
    }
    made->connect();
    made->start();
    EXPECT_TRUE(wait_until([&] { return made->is_connected(); }));
    return made;
  }

  void send_group(bool valid) {
    auto frame = rt_frame("EngineState", {{"Speed", std::string("\x05\x1a\x00\xff", 4), 0},
                                          {"Torque", std::string(4, '\0'), valid ? 0u : 1u}});
    frame.qos = 1;
    if (!m_sender) {
      m_sender = bus();
    }
    ASSERT_TRUE(m_sender->publish("rt/ECU1", frame));
  }

 private:
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_sender;
};

using ATokenClient = TokenClientTest;

TEST_F(ATokenClient, ReportsBadSettingsAndAMissingBrokerAsErrorCodes) {
  const auto error_of = [](const ClientOptions& o) {
    return TokenClient(o).connect(milliseconds(300));
  };
  ClientOptions plus = options("a+b");
  ClientOptions hash = options("a#");
  ClientOptions no_host = options("app");
  no_host.host = "";
  ClientOptions bad_port = options("app");
  bad_port.port = 0;
  ClientOptions slow_refresh = options("app");
  slow_refresh.refresh_period = seconds(10);
  ClientOptions no_broker = options("app");
  no_broker.port = free_port();

  EXPECT_EQ(error_of(plus), ClientError::InvalidClientName);
  EXPECT_EQ(error_of(hash), ClientError::InvalidClientName);
  EXPECT_EQ(error_of(no_host), ClientError::InvalidBroker);
  EXPECT_EQ(error_of(bad_port), ClientError::InvalidBroker);
  EXPECT_EQ(error_of(slow_refresh), ClientError::InvalidTiming);
  const std::error_code unreachable = error_of(no_broker);
  EXPECT_EQ(unreachable, ClientError::BrokerUnreachable);
  EXPECT_EQ(unreachable.message(), "no connection to the broker");
  EXPECT_STREQ(unreachable.category().name(), "tokard.client");

  TokenClient unconnected(options("app"));
  EXPECT_EQ(unconnected.acquire("rt/ECU1"), AcquireResult::NoAnswer);
  EXPECT_EQ(unconnected.release("rt/ECU1"), ClientError::NotConnected);
}

TEST_F(ATokenClient, RenewsAHeldTokenInTheBackgroundUntilReleased) {
  start_tokard();
  auto requests = std::make_shared<Recorder>();
  auto watcher = bus("system/tokard/request", requests);

  ClientOptions o = options("renewer");
  o.refresh_period = milliseconds(200);
  auto holder = connected(o);
  ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
  EXPECT_TRUE(holder->holds("rt/ECU1"));
  std::this_thread::sleep_for(milliseconds(1100));
  ASSERT_FALSE(holder->release("rt/ECU1"));
  EXPECT_FALSE(holder->holds("rt/ECU1"));
  std::this_thread::sleep_for(milliseconds(500));
  watcher->stop();

  std::vector<std::string> sent;
  for (const auto& received : requests->received()) {
    auto request = ecu::lapi::com::PbInternalMessageAdapter<ecu::lapi::pb::PgnRequestTokenRequest>()
                       .deserialize(received.msg);
    ASSERT_TRUE(request.ok);
    if (request.value.client_name() == "renewer") {
      sent.push_back(ecu::lapi::pb::PgnRequestTokenRequest::Action_Name(request.value.action()) +
                     " " + request.value.request_topic());
    }
  }
  // The acquire and four or five renewals, then the release and nothing but
  // releases: a renewal answered after the release is given back at once.
  const auto first_release = std::find(sent.begin(), sent.end(), "RELEASE rt/ECU1");
  ASSERT_NE(first_release, sent.end());
  EXPECT_GE(first_release - sent.begin(), 5);
  EXPECT_TRUE(std::all_of(sent.begin(), first_release,
                          [](const std::string& s) { return s == "ACQUIRE rt/ECU1"; }));
  EXPECT_TRUE(std::all_of(first_release, sent.end(),
                          [](const std::string& s) { return s == "RELEASE rt/ECU1"; }));
}

TEST_F(ATokenClient, ReleasesEveryHeldTokenWhenDestroyed) {
  start_tokard();
  {
    auto holder = connected(options("short-lived"));
    ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
    ASSERT_EQ(holder->acquire("rt/ECU2"), AcquireResult::Acquired);
  }
  auto next = connected(options("next"));
  EXPECT_EQ(next->acquire("rt/ECU1"), AcquireResult::Acquired);
  EXPECT_EQ(next->acquire("rt/ECU2"), AcquireResult::Acquired);
}

TEST_F(ATokenClient, WaitForTokenGivesUpAtItsDeadlineOrWhenInterrupted) {
  start_tokard();
  auto holder = connected(options("holder"));
  ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
  auto waiter = connected(options("waiter"));

  const auto started = Clock::now();
  EXPECT_EQ(waiter->wait_for_token("rt/ECU1", started + milliseconds(1500)), AcquireResult::Busy);
  const auto waited = Clock::now() - started;
  std::cout << "[          ] a 1500 ms wait took "
            << std::chrono::duration_cast<milliseconds>(waited).count() << " ms\n";
  EXPECT_GE(waited, milliseconds(1500));

  auto pending = std::async(std::launch::async, [&] {
    return waiter->wait_for_token("rt/ECU1", Clock::now() + seconds(30));
  });
  std::this_thread::sleep_for(milliseconds(300));
  waiter->interrupt();
  ASSERT_EQ(pending.wait_for(seconds(3)), std::future_status::ready);
  EXPECT_EQ(pending.get(), AcquireResult::Busy);
  EXPECT_EQ(waiter->acquire("rt/ECU1"), AcquireResult::NoAnswer);  // interrupted for good
}

TEST_F(ATokenClient, WaitForTokenTakesTheTokenOnceItIsReleased) {
  start_tokard();
  auto holder = connected(options("holder"));
  ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
  auto waiter = connected(options("waiter"));
  auto pending = std::async(std::launch::async, [&] {
    return waiter->wait_for_token("rt/ECU1", Clock::now() + seconds(10));
  });
  std::this_thread::sleep_for(milliseconds(500));
  ASSERT_FALSE(holder->release("rt/ECU1"));
  ASSERT_EQ(pending.wait_for(seconds(5)), std::future_status::ready);
  EXPECT_EQ(pending.get(), AcquireResult::Acquired);
  EXPECT_TRUE(waiter->holds("rt/ECU1"));
}

TEST_F(ATokenClient, ReportsATokenLostToAValidSignalGroup) {
  start_tokard();
  ClientOptions o = options("holder");
  o.refresh_period = milliseconds(200);
  auto holder = connected(o);
  std::mutex mutex;
  std::vector<std::pair<std::string, AcquireResult>> lost;
  holder->on_token_lost([&](const std::string& topic, AcquireResult why) {
    std::lock_guard<std::mutex> lock(mutex);
    lost.emplace_back(topic, why);
  });
  ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);

  send_group(true);
  ASSERT_TRUE(wait_until([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return !lost.empty();
  }));
  EXPECT_FALSE(holder->holds("rt/ECU1"));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(lost, (std::vector<std::pair<std::string, AcquireResult>>{
                      {"rt/ECU1", AcquireResult::Busy}}));
}

}  // namespace
}  // namespace tokard::test
