#include "integration/program/program_test.h"

namespace tokard::test {
namespace {

using TheRunningDaemon = ProgramTest;

TEST_F(TheRunningDaemon, StopsWithStatusZeroOnSigtermOrSigint) {
  MosquittoBroker broker;
  MqttProbe probe(broker.port());
  for (const int sig : {SIGTERM, SIGINT}) {
    auto program = run({"-L", "-l", "DEBUG", "-p", std::to_string(broker.port())});
    // An answer means the delivery runs, so the main loop has begun.
    ASSERT_TRUE(probe.acquire("lifecycle", "rt/ECU1").has_value()) << program->out();
    expect_clean_stop(*program, sig);
    std::vector<std::string> daemon_lines;
    for (const auto& line : lines(program->out())) {
      if (line.rfind("DEBUG tokard.daemon: ", 0) == 0) {
        daemon_lines.push_back(line);
      }
    }
    EXPECT_EQ(daemon_lines, (std::vector<std::string>{"DEBUG tokard.daemon: Initializing...",
                                                      "DEBUG tokard.daemon: Starting...",
                                                      "DEBUG tokard.daemon: ... stopped!"}))
        << program->out();
  }
}

TEST_F(TheRunningDaemon, AnswersAcquiresFromOtherClientsOnTheirResponseTopics) {
  MosquittoBroker broker;
  auto program = run({"-L", "-l", "INFO", "-p", std::to_string(broker.port())});
  MqttProbe first(broker.port());
  MqttProbe second(broker.port());

  const auto granted = first.acquire("first-app", "rt/ECU1");
  ASSERT_TRUE(granted.has_value()) << "no response; stdout:\n" << program->out();
  EXPECT_EQ(granted->result(), 3);
  EXPECT_EQ(granted->request_topic(), "rt/ECU1");

  const auto refused = second.acquire("second-app", "rt/ECU1");
  ASSERT_TRUE(refused.has_value());
  EXPECT_EQ(refused->result(), 4);

  expect_clean_stop(*program, SIGTERM);
}

}  // namespace
}  // namespace tokard::test
