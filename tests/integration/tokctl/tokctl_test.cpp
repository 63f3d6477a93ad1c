#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "integration/tokctl/tokard_fixture.h"

#ifndef TOKCTL_PROGRAM
#error "TOKCTL_PROGRAM must name the built tokctl"
#endif

namespace tokard::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

struct Finished {
  int status = -1;
  std::string out;
  std::string err;
};

class TokctlTest : public TokardOnBroker {
 protected:
  // tokctl with the test broker's address appended.
  std::unique_ptr<Program> start(std::vector<std::string> args) {
    args.insert(args.end(), {"-H", "127.0.0.1", "-p", port_text()});
    return std::make_unique<Program>(TOKCTL_PROGRAM, args);
  }

  Finished run(const std::vector<std::string>& args) {
    return finish(*start(args));
  }

  static Finished finish(Program& program, milliseconds limit = seconds(10)) {
    const auto status = program.wait(limit);
    return {exit_status(status), program.out(), program.err()};
  }

  static std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      out.push_back(line);
    }
    return out;
  }

  static std::chrono::steady_clock::time_point now() { return std::chrono::steady_clock::now(); }
};

using TokctlAlone = TokctlTest;
using Tokctl = TokctlTest;

TEST_F(TokctlAlone, PrintsItsHelpOnStandardOutputAndExitsWithZero) {
  for (const char* flag : {"--help", "-h"}) {
    const auto run_help = finish(*std::make_unique<Program>(TOKCTL_PROGRAM,
                                                            std::vector<std::string>{flag}));
    EXPECT_EQ(run_help.status, 0) << flag;
    EXPECT_EQ(run_help.out.rfind("Usage: tokctl [OPTIONS] COMMAND [ARGUMENTS]\n", 0), 0u);
    for (const char* text :
         {"  acquire TOPIC --client NAME\n", "  hold TOPIC --client NAME [--wait SECONDS]\n",
          "  release TOPIC --client NAME\n", "  signal TOPIC --group NAME SIGNAL=HEX:STATUS...\n",
          "  watch [TOPIC...]\n", "(default: localhost)", "(default: 1883)",
          "Exit status: 0 acquired (or done), 1 usage or connection error,\n"
          "2 no ECU for the topic, 3 busy, 4 no answer from tokard.\n"}) {
      EXPECT_NE(run_help.out.find(text), std::string::npos) << text;
    }
    EXPECT_EQ(run_help.err, "");
  }
}

TEST_F(TokctlAlone, RefusesBadCommandLinesWithStatusOneAndSaysWhy) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{}, "tokctl: no command given\n"},
      {{"frob"}, "tokctl: unknown command 'frob'\n"},
      {{"acquire", "rt/ECU1"}, "tokctl: acquire needs --client NAME\n"},
      {{"hold", "--client", "a"}, "tokctl: hold needs a TOPIC\n"},
      {{"release", "rt/ECU1", "rt/ECU2", "--client", "a"},
       "tokctl: release takes one TOPIC, not 'rt/ECU2' too\n"},
      {{"acquire", "rt/ECU1", "--client", "a", "--wait", "3"},
       "tokctl: --wait does not apply to acquire\n"},
      {{"hold", "rt/ECU1", "--client", "a", "--wait", "soon"},
       "tokctl: 'soon' is not a number of seconds for --wait\n"},
      {{"-p", "70000", "watch"}, "tokctl: '70000' is not a port number (1 to 65535)\n"},
      {{"signal", "rt/ECU1", "Speed=051a00ff:0"}, "tokctl: signal needs --group NAME\n"},
      {{"signal", "rt/ECU1", "--group", "G"},
       "tokctl: signal needs a TOPIC and at least one SIGNAL\n"},
      {{"watch", "--bogus"}, "tokctl: unknown option --bogus\n"},
      {{"watch", "-p"}, "tokctl: option -p needs a value\n"},
  };
  for (const auto& [args, message] : cases) {
    const auto refused = finish(*std::make_unique<Program>(TOKCTL_PROGRAM, args));
    EXPECT_EQ(refused.status, 1) << message;
    EXPECT_EQ(refused.err, message + "Try 'tokctl --help'.\n");
    EXPECT_EQ(refused.out, "");
  }

  // Signal words are checked before any connection is tried.
  for (const auto& [word, message] :
       std::vector<std::pair<std::string, std::string>>{
           {"Speed051a00ff:0", "'Speed051a00ff:0' is not SIGNAL=HEX:STATUS"},
           {"Speed=051a00:0", "'Speed=051a00:0': the data needs at least four bytes"},
           {"Speed=051a00zz:0", "'Speed=051a00zz:0': '051a00zz' is not hexadecimal"},
           {"Speed=051a00ff:x", "'Speed=051a00ff:x': the status must be a number"}}) {
    const auto refused = finish(*std::make_unique<Program>(
        TOKCTL_PROGRAM, std::vector<std::string>{"signal", "rt/ECU1", "--group", "G", word,
                                                 "-p", "1"}));
    EXPECT_EQ(refused.status, 1) << word;
    EXPECT_EQ(refused.err.rfind("tokctl: " + message, 0), 0u) << refused.err;
  }
}

TEST_F(TokctlAlone, ExitsWithStatusOneWhenNoBrokerAnswers) {
  const int nobody = free_port();
  const auto failed = finish(*std::make_unique<Program>(
      TOKCTL_PROGRAM, std::vector<std::string>{"acquire", "rt/ECU1", "--client", "a", "-H",
                                               "127.0.0.1", "-p", std::to_string(nobody)}));
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.err.find("tokctl: no connection to the broker at 127.0.0.1:" +
                            std::to_string(nobody) + "\n"),
            std::string::npos)
      << failed.err;
  EXPECT_EQ(failed.out, "");
}

TEST_F(TokctlAlone, ExitsWithStatusFourWhenTokardDoesNotAnswer) {
  const auto started = now();
  const auto silent = run({"acquire", "rt/ECU1", "--client", "a", "--timeout", "0.3"});
  std::cout << "[          ] gave up after "
            << std::chrono::duration_cast<milliseconds>(now() - started).count() << " ms\n";
  EXPECT_EQ(silent.status, 4) << silent.err;
  EXPECT_EQ(silent.out, "rt/ECU1: no answer\n");
}

TEST_F(Tokctl, AcquirePrintsTokardsAnswerAndExitsWithItsStatus) {
  start_tokard();
  const auto granted = run({"acquire", "rt/ECU1", "--client", "first"});
  EXPECT_EQ(granted.status, 0) << granted.err;
  EXPECT_EQ(granted.out, "rt/ECU1: acquired\n");

  const auto busy = run({"acquire", "rt/ECU1", "--client", "second"});
  EXPECT_EQ(busy.status, 3);
  EXPECT_EQ(busy.out, "rt/ECU1: busy\n");

  const auto no_ecu = run({"acquire", "can/ECU1", "--client", "second"});
  EXPECT_EQ(no_ecu.status, 2);
  EXPECT_EQ(no_ecu.out, "can/ECU1: no ECU\n");

  // The token outlives the command: "first" may renew it.
  EXPECT_EQ(run({"acquire", "rt/ECU1", "--client", "first"}).status, 0);
}

TEST_F(Tokctl, ReleaseFreesTheTokenOnlyForItsHolder) {
  start_tokard();
  ASSERT_EQ(run({"acquire", "rt/ECU1", "--client", "first"}).status, 0);

  const auto stranger = run({"release", "rt/ECU1", "--client", "second"});
  EXPECT_EQ(stranger.status, 0);
  EXPECT_EQ(stranger.out, "rt/ECU1: release sent\n");
  EXPECT_EQ(run({"acquire", "rt/ECU1", "--client", "second"}).status, 3);

  const auto holder = run({"release", "rt/ECU1", "--client", "first"});
  EXPECT_EQ(holder.status, 0);
  EXPECT_EQ(run({"acquire", "rt/ECU1", "--client", "second"}).out, "rt/ECU1: acquired\n");
}

TEST_F(Tokctl, SignalGroupsBlockTheEcuWhileValidAndFreeItOtherwise) {
  start_tokard();
  ASSERT_EQ(run({"acquire", "rt/ECU1", "--client", "first"}).status, 0);  // tokard follows ECU1

  const auto valid = run({"signal", "rt/ECU1", "--group", "EngineState", "Speed=051a00ff:0",
                          "Torque=00000000:0"});
  EXPECT_EQ(valid.status, 0) << valid.err;
  EXPECT_EQ(valid.out, "rt/ECU1: sent group EngineState (valid)\n");
  EXPECT_EQ(run({"acquire", "rt/ECU1", "--client", "first"}).status, 3);
  EXPECT_EQ(run({"acquire", "rt/ECU1", "--client", "second"}).status, 3);

  const auto invalid = run({"signal", "rt/ECU1", "--group", "EngineState", "Speed=051a00ff:1",
                            "Torque=00000000:0"});
  EXPECT_EQ(invalid.status, 0);
  EXPECT_EQ(invalid.out, "rt/ECU1: sent group EngineState (not valid)\n");
  EXPECT_EQ(run({"acquire", "rt/ECU1", "--client", "second"}).status, 0) << tokard_log();
}

TEST_F(Tokctl, WatchPrintsRequestsAnswersAndGroupsOneLineEachWithTheTime) {
  start_tokard();
  auto watch = start({"watch"});
  ASSERT_TRUE(watch->wait_for_out("watching system/tokard/request app/+/pgn/response rt/# "
                                  "rttx/#\n"))
      << watch->err();

  ASSERT_EQ(run({"acquire", "rt/ECU1", "--client", "demo"}).status, 0);
  ASSERT_EQ(run({"release", "rt/ECU1", "--client", "demo"}).status, 0);
  ASSERT_EQ(run({"signal", "rttx/ECU1", "--group", "EngineState", "Speed=051a00ff:3",
                 "Torque=00000000:0"})
                .status,
            0);
  ASSERT_TRUE(watch->wait_for_out("rttx/ECU1 EngineState")) << watch->out();
  ASSERT_TRUE(watch->send(SIGINT));
  const auto ended = finish(*watch);
  EXPECT_EQ(ended.status, 0) << ended.err;

  const std::regex time("^[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} ");
  std::vector<std::string> texts;
  for (const auto& line : lines(ended.out)) {
    // The fixture's readiness probe may still be answered.
    if (line.rfind("watching ", 0) == 0 || line.find("rt/READY") != std::string::npos) {
      continue;
    }
    std::smatch stamp;
    ASSERT_TRUE(std::regex_search(line, stamp, time)) << line;
    texts.push_back(stamp.suffix());
  }
  const std::vector<std::string> expected{
      "system/tokard/request acquire rt/ECU1 by demo",
      "app/demo/pgn/response acquired rt/ECU1",
      "system/tokard/request release rt/ECU1 by demo",
      "rttx/ECU1 EngineState not valid Speed=051a00ff:3 Torque=00000000:0",
  };
  EXPECT_EQ(texts, expected) << ended.out;
}

TEST_F(Tokctl, WatchFollowsOnlyTheTopicsItIsGiven) {
  start_tokard();
  auto watch = start({"watch", "rt/#", "elsewhere"});
  ASSERT_TRUE(watch->wait_for_out("watching rt/# elsewhere\n")) << watch->err();
  ASSERT_EQ(run({"acquire", "rt/ECU1", "--client", "demo"}).status, 0);
  ASSERT_EQ(run({"signal", "rt/ECU1", "--group", "EngineState", "Speed=051a00ff:0",
                 "Torque=00000000:0"})
                .status,
            0);
  ASSERT_TRUE(watch->wait_for_out("rt/ECU1 EngineState valid")) << watch->out();
  ASSERT_TRUE(watch->send(SIGTERM));
  const auto ended = finish(*watch);
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(lines(ended.out).size(), 2u) << ended.out;
}

TEST_F(Tokctl, SecondHoldGetsTheTokenWhenTheFirstIsStopped) {
  start_tokard();
  auto first = start({"hold", "rt/ECU1", "--client", "first"});
  ASSERT_TRUE(first->wait_for_out("rt/ECU1: acquired, holding until SIGINT or SIGTERM\n"))
      << first->err();

  const auto impatient = run({"hold", "rt/ECU1", "--client", "second"});
  EXPECT_EQ(impatient.status, 3);
  EXPECT_EQ(impatient.out, "rt/ECU1: busy\n");

  auto second = start({"hold", "rt/ECU1", "--client", "second", "--wait", "20"});
  ASSERT_TRUE(second->wait_for_out("rt/ECU1: busy, waiting up to 20 s\n")) << second->err();

  const auto stopped = now();
  ASSERT_TRUE(first->send(SIGTERM));
  const auto first_ended = finish(*first);
  EXPECT_EQ(first_ended.status, 0) << first_ended.err;
  EXPECT_EQ(first_ended.out,
            "rt/ECU1: acquired, holding until SIGINT or SIGTERM\nrt/ECU1: released\n");

  ASSERT_TRUE(second->wait_for_out("rt/ECU1: acquired", seconds(5))) << second->out();
  std::cout << "[          ] second holder got the token "
            << std::chrono::duration_cast<milliseconds>(now() - stopped).count()
            << " ms after the first was stopped\n";

  ASSERT_TRUE(second->send(SIGINT));
  const auto second_ended = finish(*second);
  EXPECT_EQ(second_ended.status, 0);
  EXPECT_EQ(second_ended.out,
            "rt/ECU1: busy, waiting up to 20 s\n"
            "rt/ECU1: acquired, holding until SIGINT or SIGTERM\n"
            "rt/ECU1: released\n");
  EXPECT_EQ(run({"acquire", "rt/ECU1", "--client", "third"}).status, 0);
}

TEST_F(Tokctl, HolderKilledWithoutReleaseLosesTheTokenAfterTenSeconds) {
  start_tokard();
  auto first = start({"hold", "rt/ECU1", "--client", "first"});
  ASSERT_TRUE(first->wait_for_out("holding")) << first->err();
  auto second = start({"hold", "rt/ECU1", "--client", "second", "--wait", "30"});
  ASSERT_TRUE(second->wait_for_out("waiting")) << second->err();

  ASSERT_TRUE(first->send(SIGKILL));
  const auto killed = now();
  // The first holder renewed at most 3 s before it died.
  EXPECT_FALSE(second->wait_for_out("rt/ECU1: acquired", seconds(6))) << second->out();
  ASSERT_TRUE(second->wait_for_out("rt/ECU1: acquired", seconds(9))) << second->out();
  std::cout << "[          ] token taken over "
            << std::chrono::duration_cast<milliseconds>(now() - killed).count()
            << " ms after the holder was killed\n";
}

TEST_F(Tokctl, HoldEndsWithBusyWhenItsTokenIsLost) {
  start_tokard();
  auto holder = start({"hold", "rt/ECU1", "--client", "first"});
  ASSERT_TRUE(holder->wait_for_out("holding")) << holder->err();
  ASSERT_EQ(run({"signal", "rt/ECU1", "--group", "EngineState", "Speed=051a00ff:0",
                 "Torque=00000000:0"})
                .status,
            0);
  // The next renewal, at most 3 s away, is refused.
  const auto ended = finish(*holder, seconds(6));
  EXPECT_EQ(ended.status, 3);
  EXPECT_EQ(ended.out,
            "rt/ECU1: acquired, holding until SIGINT or SIGTERM\nrt/ECU1: token lost (busy)\n");
}

}  // namespace
}  // namespace tokard::test
