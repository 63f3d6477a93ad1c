// The built tokctl against tokard on a private broker: holding a token,
// waiting in line for one, and running a COMMAND only while it is held.
#include <gtest/gtest.h>

#include <csignal>

#include "support/mqtt_client.h"
#include "support/process.h"

namespace tokard::test {
namespace {

using Clock = std::chrono::steady_clock;

// Holds rt/ECU1 as "a" for a COMMAND that ignores SIGTERM (saying "term") and prints its pid first.
const std::vector<std::string> kStubbornHold{
    "hold", "rt/ECU1", "-c", "a",
    "--",   "sh",      "-c", "trap 'echo term' TERM; echo $$; while :; do sleep 0.1; done"};

class Tokctl : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(app.wait_for_service()) << tokard->out(); }

  std::unique_ptr<Process> start(std::vector<std::string> args, int port = 0) {
    const auto dashes = std::find(args.begin(), args.end(), "--");
    args.insert(dashes, {"-H", "127.0.0.1", "-p", std::to_string(port ? port : broker.port())});
    return std::make_unique<Process>(TOKCTL_PROGRAM, args);
  }
  // The exit status.
  int run(std::vector<std::string> args) { return start(std::move(args))->wait(20s).value_or(-1); }
  int signal_group(bool valid) {
    return run({"signal", "rt/ECU1", "--group", "EngineState", "Speed=051a00ff:0",
                valid ? "Torque=00000000:0" : "Torque=00000000:1"});
  }

  Broker broker;
  std::unique_ptr<Process> tokard = tokard_on(broker.port());
  MqttTestClient app{broker.port(), "app"};
};

// The pid a stubborn COMMAND printed first, once it runs.
pid_t started(const Process& tokctl) {
  return tokctl.wait_for_out("\n") ? std::stoi(tokctl.out()) : -1;
}
bool gone(pid_t pid) { return ::kill(pid, 0) != 0; }

TEST_F(Tokctl, HoldsATokenUntilStoppedAndWaitsInLineForOne) {
  auto first = start({"hold", "rt/ECU1", "--client", "first"});
  ASSERT_TRUE(first->wait_for_out("rt/ECU1: acquired, holding until SIGINT or SIGTERM\n"))
      << first->err();
  auto second = start({"hold", "rt/ECU1", "--client", "second", "--wait", "20"});
  ASSERT_TRUE(second->wait_for_out("rt/ECU1: busy, waiting up to 20 s\n")) << second->err();
  ASSERT_TRUE(first->signal(SIGTERM));
  EXPECT_EQ(first->wait(), 0);
  EXPECT_EQ(first->out(),
            "rt/ECU1: acquired, holding until SIGINT or SIGTERM\nrt/ECU1: released\n");
  EXPECT_TRUE(second->wait_for_out("rt/ECU1: acquired, holding until SIGINT or SIGTERM\n"))
      << second->out();

  Broker quiet;  // no tokard there
  auto silent = start({"acquire", "rt/ECU1", "--client", "a", "--timeout", "0.3"}, quiet.port());
  EXPECT_EQ(silent->wait(), 4);
  EXPECT_EQ(silent->out(), "rt/ECU1: no answer\n");
  EXPECT_EQ(silent->err(), "tokctl: no answer from tokard within 0.3 s: is it running?\n");
  // Known to be offline: the client does not wait out its time-out.
  MqttTestClient last(quiet.port(), "last-tokard");
  ASSERT_TRUE(
      last.publish(protocol::kStateTopic, Bytes{'o', 'f', 'f', 'l', 'i', 'n', 'e'}, 1, true));
  ASSERT_EQ(last.subscribe(protocol::kStateTopic), 1);  // answered after the publish: kept
  auto offline = start({"acquire", "rt/ECU1", "--client", "a", "--timeout", "30"}, quiet.port());
  EXPECT_EQ(offline->wait(5s), 4);
  EXPECT_EQ(offline->err(), "tokctl: tokard is offline (it says so on system/tokard/state)\n");
  // A group that is not the one defined for the topic is sent with a warning.
  Process nope(TOKCTL_PROGRAM,
               {"signal", "rt/ECU1", "--group", "Nope", "Speed=051a00ff:0", "-p",
                std::to_string(quiet.port())},
               {"LAPI_RT_SIGNALS=" + scratch("rt_signals.json")});
  EXPECT_EQ(nope.wait(), 0);
  EXPECT_NE(nope.err().find("is EngineState, not Nope: tokard will reject this one"),
            std::string::npos)
      << nope.err();
  auto refused = start({"acquire", "rt/ECU1", "--client", "a"}, free_port());
  EXPECT_EQ(refused->wait(10s), 1);
  EXPECT_NE(refused->err().find("tokctl: no connection to the broker at 127.0.0.1:"),
            std::string::npos);
}

TEST_F(Tokctl, RunsACommandWhileHoldingAndExitsWithItsStatus) {
  const std::vector<std::pair<std::string, int>> commands{{"echo only this; exit 7", 7},
                                                          {"kill -9 $$", 137}};
  for (const auto& [command, status] : commands) {
    EXPECT_EQ(run({"hold", "rt/ECU1", "-c", "a", "--", "sh", "-c", command}), status);
  }
  EXPECT_EQ(run({"hold", "rt/ECU1", "-c", "a", "--", "no-such-program-here"}), 127);
  // SIGTERM to tokctl goes on to COMMAND; the token is given back.
  auto held = start({"hold", "rt/ECU1", "-c", "a", "--", "sh", "-c", "echo $$; sleep 30"});
  ASSERT_GT(started(*held), 0);
  ASSERT_TRUE(held->signal(SIGTERM));
  EXPECT_EQ(held->wait(), 128 + SIGTERM);
  EXPECT_EQ(app.ask("rt/ECU1"), Response::ACQUIRED);
}

TEST_F(Tokctl, StopsItsCommandWhenARenewalIsRefused) {
  auto holder = start(kStubbornHold);
  const pid_t command = started(*holder);
  ASSERT_GT(command, 0) << holder->err();
  ASSERT_EQ(signal_group(true), 0);
  ASSERT_TRUE(holder->wait_for_out("term\n", 5s)) << holder->err();
  const auto terminated = Clock::now();
  EXPECT_EQ(holder->wait(5s), 3);
  EXPECT_GE(Clock::now() - terminated, 1500ms) << "SIGKILL waits for the grace";
  EXPECT_TRUE(gone(command));
  EXPECT_EQ(holder->err().rfind("tokctl: rt/ECU1: token lost (busy), stopping sh\n", 0), 0u)
      << holder->err();
  ASSERT_EQ(signal_group(false), 0);
  EXPECT_EQ(app.ask("rt/ECU1", "b"), Response::ACQUIRED);
}

// tokctl on a broker bridged to tokard's: when its broker dies, nothing of
// tokctl reaches tokard, but a client on tokard's broker still does.
TEST_F(Tokctl, KillsItsCommandBeforeTheLeaseCanLapseWhenTheBrokerIsGone) {
  const int port = free_port();
  Broker edge(port, write_file(scratch("edge.conf"), bridge_config(port, broker.port())), true);
  ASSERT_TRUE(MqttTestClient(port, "edge-probe").wait_for_service(20s)) << edge.log();
  auto holder = start(kStubbornHold, port);
  const pid_t command = started(*holder);
  ASSERT_GT(command, 0) << holder->err();
  edge.kill();
  std::optional<Clock::time_point> dead;
  ASSERT_TRUE(wait_until(
      [&] {
        if (!dead && gone(command)) {
          dead = Clock::now();
        }
        return app.ask("rt/ECU1", "b", 200ms) == Response::ACQUIRED;
      },
      20s));
  EXPECT_TRUE(dead) << "the ECU was granted while COMMAND still ran";
  EXPECT_EQ(holder->wait(), 3);
  EXPECT_NE(holder->out().find("term\n"), std::string::npos) << "SIGTERM came first";
  EXPECT_NE(holder->err().find("rt/ECU1: token lost (no answer), stopping sh\n"), std::string::npos)
      << holder->err();
}

}  // namespace
}  // namespace tokard::test
