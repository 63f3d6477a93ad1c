// The token client library and tokctl against tokard on a private broker.
#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <regex>

#include "support/log_capture.h"
#include "support/mqtt_client.h"
#include "support/process.h"
#include "tokard/token_client.h"

namespace tokard::test {
namespace {

using client::AcquireResult;
using client::ClientError;
using client::TokenClient;
using Clock = std::chrono::steady_clock;

Bytes engine_state(bool valid) {
  const std::string d("\x05\x1a\x00\xff", 4);
  return protocol::group_frame("EngineState", {{"Speed", d, 0}, {"Torque", d, valid ? 0u : 1u}})
      .payload;
}

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
  // tokctl on the broker: exit status and standard output.
  std::pair<int, std::string> tokctl(std::vector<std::string> args) {
    auto run = start_tokctl(std::move(args));
    const auto status = run->wait(10s);
    return {status.value_or(-1), run->out()};
  }
  std::unique_ptr<Process> start_tokctl(std::vector<std::string> args) {
    args.insert(args.end(), {"-H", "127.0.0.1", "-p", std::to_string(broker.port())});
    return std::make_unique<Process>(TOKCTL_PROGRAM, args);
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
  TokenClient unconnected(options("app"));
  EXPECT_EQ(unconnected.acquire("rt/ECU1"), AcquireResult::NoAnswer);
  EXPECT_EQ(unconnected.release("rt/ECU1"), ClientError::NotConnected);
  EXPECT_STREQ(client::to_string(AcquireResult::NoEcu), "no ECU");
}

TEST_F(WithTokard, ClientRenewsItsTokenUntilReleasedAndReportsItsLoss) {
  ASSERT_EQ(app.subscribe(protocol::kRequestTopic), 1);
  auto holder = connected("renewer", 200ms);
  std::promise<std::pair<std::string, AcquireResult>> lost;
  holder->on_token_lost([&](const std::string& topic, AcquireResult why) {
    lost.set_value({topic, why});
  });
  ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
  ASSERT_EQ(holder->acquire("rt/ECU2"), AcquireResult::Acquired);
  ASSERT_EQ(holder->acquire_once("rt/ECU3"), AcquireResult::Acquired);
  EXPECT_EQ(holder->acquire("can/ECU1"), AcquireResult::NoEcu);
  EXPECT_TRUE(holder->holds("rt/ECU1"));
  EXPECT_FALSE(holder->holds("rt/ECU3"));
  std::this_thread::sleep_for(1100ms);  // the renewals are what is tested
  ASSERT_FALSE(holder->release("rt/ECU2"));
  EXPECT_FALSE(holder->holds("rt/ECU2"));
  Lines sent;
  // rt/ECU1 is still renewed: read up to the release of rt/ECU2.
  while (sent.empty() || sent.back() != "RELEASE rt/ECU2") {
    const auto request = app.next(protocol::kRequestTopic);
    if (!request) {
      break;
    }
    protocol::Message msg;
    msg.payload = request->payload;
    const auto body = protocol::read<Request>(msg).value;
    if (body.client_name() == "renewer" && body.request_topic() != "can/ECU1" &&
        body.request_topic() != "rt/ECU1") {
      sent.push_back(Request::Action_Name(body.action()) + " " + body.request_topic());
    }
  }
  EXPECT_EQ(std::count(sent.begin(), sent.end(), "ACQUIRE rt/ECU3"), 1);
  EXPECT_GE(std::count(sent.begin(), sent.end(), "ACQUIRE rt/ECU2"), 5);
  EXPECT_EQ(sent.back(), "RELEASE rt/ECU2");

  // A valid group makes the next renewal Busy: the token is lost.
  app.publish("rt/ECU1", engine_state(true));
  auto why = lost.get_future();
  ASSERT_EQ(why.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(why.get(), std::make_pair(std::string("rt/ECU1"), AcquireResult::Busy));
  EXPECT_FALSE(holder->holds("rt/ECU1"));
}

TEST_F(WithTokard, ClientWaitsForATokenUntilReleasedDeadlineOrInterrupt) {
  {
    auto patient = options("patient");
    patient.answer_timeout = 30s;
    TokenClient asker(patient);
    ASSERT_FALSE(asker.connect());
    const auto asked = Clock::now();
    EXPECT_EQ(asker.acquire_once("rt/ECU4"), AcquireResult::Acquired);
    EXPECT_LT(Clock::now() - asked, 10s) << "returns with the answer, not at the time-out";
    auto holder = connected("holder");
    ASSERT_EQ(holder->acquire("rt/ECU1"), AcquireResult::Acquired);
    ASSERT_EQ(holder->acquire("rt/ECU2"), AcquireResult::Acquired);
    auto waiter = connected("waiter");
    const auto started = Clock::now();
    EXPECT_EQ(waiter->wait_for_token("rt/ECU1", started + 1500ms), AcquireResult::Busy);
    EXPECT_GE(Clock::now() - started, 1500ms);
    auto pending = std::async(
        std::launch::async, [&] { return waiter->wait_for_token("rt/ECU1", Clock::now() + 10s); });
    ASSERT_FALSE(holder->release("rt/ECU1"));
    ASSERT_EQ(pending.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(pending.get(), AcquireResult::Acquired);
    EXPECT_TRUE(waiter->holds("rt/ECU1"));
    pending = std::async(std::launch::async,
                         [&] { return waiter->wait_for_token("rt/ECU2", Clock::now() + 30s); });
    std::this_thread::sleep_for(300ms);
    waiter->interrupt();
    ASSERT_EQ(pending.wait_for(3s), std::future_status::ready);
    EXPECT_EQ(pending.get(), AcquireResult::Busy);
    EXPECT_EQ(waiter->acquire("rt/ECU3"), AcquireResult::NoAnswer) << "interrupted for good";
    ASSERT_EQ(::kill(tokard->pid(), SIGSTOP), 0);  // a renewal nobody answers, interrupted
    auto renewal = std::async(std::launch::async, [&] { return holder->acquire("rt/ECU2"); });
    std::this_thread::sleep_for(300ms);
    holder->interrupt();
    EXPECT_EQ(renewal.get(), AcquireResult::NoAnswer) << "not the answer to the first request";
    ::kill(tokard->pid(), SIGCONT);
  }
  // Both destroyed: every held token was given back.
  EXPECT_EQ(app.ask("rt/ECU1"), Response::ACQUIRED);
  EXPECT_EQ(app.ask("rt/ECU2"), Response::ACQUIRED);
}

TEST_F(WithTokard, TokctlRefusesBadCommandLinesWithStatusOneAndSaysWhy) {
  Process help(TOKCTL_PROGRAM, {"--help"});
  EXPECT_EQ(help.wait(), 0);
  EXPECT_EQ(help.out().rfind("Usage: tokctl [OPTIONS] COMMAND [ARGUMENTS]\n", 0), 0u);
  Process version(TOKCTL_PROGRAM, {"--version"});
  EXPECT_EQ(version.wait(), 0);
  EXPECT_EQ(version.out(), "tokctl 1.0.0\n");
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{}, "no command given"},
      {{"frob"}, "unknown command 'frob'"},
      {{"acquire", "rt/E"}, "acquire needs --client NAME"},
      {{"release", "rt/E", "rt/F", "--client", "a"}, "release takes one TOPIC, not 'rt/F' too"},
      {{"hold", "rt/E", "--client", "a", "--wait", "soon"},
       "'soon' is not a number of seconds for --wait"},
      {{"-p", "70000", "watch"}, "'70000' is not a port number (1 to 65535)"},
      {{"-h", "localhost", "watch"},
       "-h/--help takes nothing else; the broker host is given with -H HOST"},
      {{"acquire", "rt/E", "-c", "a", "--timeout", "0"}, "--timeout must be more than 0 seconds"},
      {{"acquire", "", "-c", "a"}, "acquire needs a TOPIC that is not empty"},
      {{"signal", "rt/E", "--group", "G", "S=051a00zz:0"},
       "'S=051a00zz:0': '051a00zz' is not hexadecimal"},
      {{"acquire", "rt/E", "--client", "a", "-H", "127.0.0.1", "-p", "1"},
       "no connection to the broker at 127.0.0.1:1"}};
  for (const auto& [args, message] : cases) {
    Process run(TOKCTL_PROGRAM, args);
    EXPECT_EQ(run.wait(10s), 1) << message;
    EXPECT_NE(run.err().find("tokctl: " + message + "\n"), std::string::npos) << run.err();
    EXPECT_EQ(run.out(), "");
  }
}

TEST_F(WithTokard, TokctlHoldsATokenUntilStoppedOrLostAndWaitsForOne) {
  auto first = start_tokctl({"hold", "rt/ECU1", "--client", "first"});
  ASSERT_TRUE(first->wait_for_out("rt/ECU1: acquired, holding until SIGINT or SIGTERM\n"))
      << first->err();
  EXPECT_EQ(tokctl({"hold", "rt/ECU1", "--client", "second"}),
            std::make_pair(3, std::string("rt/ECU1: busy\n")));
  EXPECT_EQ(tokctl({"acquire", "can/ECU1", "--client", "x"}),
            std::make_pair(2, std::string("can/ECU1: no ECU\n")));
  auto second = start_tokctl({"hold", "rt/ECU1", "--client", "second", "--wait", "20"});
  ASSERT_TRUE(second->wait_for_out("rt/ECU1: busy, waiting up to 20 s\n")) << second->err();
  ASSERT_TRUE(first->signal(SIGTERM));
  EXPECT_EQ(first->wait(), 0);
  EXPECT_EQ(first->out(),
            "rt/ECU1: acquired, holding until SIGINT or SIGTERM\nrt/ECU1: released\n");
  ASSERT_TRUE(second->wait_for_out("rt/ECU1: acquired, holding until SIGINT or SIGTERM\n", 5s))
      << second->out();
  // A valid group: the next renewal, at most 3 s away, is refused.
  EXPECT_EQ(tokctl({"signal", "rt/ECU1", "--group", "EngineState", "Speed=051a00ff:0",
                    "Torque=00000000:0"})
                .first,
            0);
  EXPECT_EQ(second->wait(6s), 3);
  EXPECT_EQ(
      second->out(),
      "rt/ECU1: busy, waiting up to 20 s\nrt/ECU1: acquired, holding until SIGINT or SIGTERM\n"
      "rt/ECU1: token lost (busy)\n");
  Broker quiet;  // no tokard there
  Process silent(TOKCTL_PROGRAM, {"acquire", "rt/ECU1", "--client", "a", "--timeout", "0.3", "-p",
                                  std::to_string(quiet.port())});
  EXPECT_EQ(silent.wait(), 4);
  EXPECT_EQ(silent.out(), "rt/ECU1: no answer\n");
  EXPECT_EQ(silent.err(), "tokctl: no answer from tokard within 0.3 s: is it running?\n");
  // Known to be offline: the client does not wait out its time-out.
  MqttTestClient last(quiet.port(), "last-tokard");
  last.subscribe(protocol::kStateTopic);
  last.publish(protocol::kStateTopic, Bytes{'o', 'f', 'f', 'l', 'i', 'n', 'e'}, 1, true);
  ASSERT_TRUE(last.next(protocol::kStateTopic)) << "the broker keeps it";
  Process offline(TOKCTL_PROGRAM, {"acquire", "rt/ECU1", "--client", "a", "--timeout", "30", "-p",
                                   std::to_string(quiet.port())});
  EXPECT_EQ(offline.wait(5s), 4);
  EXPECT_EQ(offline.err(), "tokctl: tokard is offline (it says so on system/tokard/state)\n");
  // A group that is not the one defined for the topic is sent with a warning.
  Process nope(TOKCTL_PROGRAM,
               {"signal", "rt/ECU1", "--group", "Nope", "Speed=051a00ff:0", "-p",
                std::to_string(quiet.port())},
               {"LAPI_RT_SIGNALS=" + scratch("rt_signals.json")});
  EXPECT_EQ(nope.wait(), 0);
  EXPECT_NE(nope.err().find("is EngineState, not Nope: tokard will reject this one"),
            std::string::npos)
      << nope.err();
}

}  // namespace
}  // namespace tokard::test
