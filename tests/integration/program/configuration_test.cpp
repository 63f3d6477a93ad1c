#include "integration/program/program_test.h"

namespace tokard::test {
namespace {

// Most runs here give an invalid port so that start-up ends right after
// the log settings are applied, at "Unable to verify Configuration.".
using TheConfiguration = ProgramTest;

const std::string kVerifyFailed = "ERROR tokard.main: Unable to verify Configuration.";

TEST_F(TheConfiguration, EndsStartUpWithStatusOneWhenThePortIsInvalid) {
  auto program = run({"-L", "-l", "DEBUG", "-p", "abc"});
  EXPECT_EQ(exit_status(program->wait()), 1);
  const auto out = lines(program->out());
  ASSERT_GE(out.size(), 4u) << program->out();
  EXPECT_EQ(out[0] + "\n", banner());
  EXPECT_EQ(out[1], "DEBUG tokard.main: Register unix signal handler");
  EXPECT_EQ(out[2], "DEBUG tokard.main: Using default configuration");
  EXPECT_EQ(out.back(), kVerifyFailed);

  write_config("port = 0\n");
  program = run({"-L"});
  EXPECT_EQ(exit_status(program->wait()), 1);
  EXPECT_EQ(lines(program->out()).back(), kVerifyFailed);
}

TEST_F(TheConfiguration, TakesTheLogModeFromTheFileInAnyLetterCase) {
  write_config("logmode = stdout\nport = 0\n");
  auto program = run({"-l", "DEBUG"});
  EXPECT_EQ(exit_status(program->wait()), 1);
  EXPECT_EQ(lines(program->out()).back(), kVerifyFailed);
  EXPECT_EQ(program->err(), "");
  // Lines before the file was read still went to syslog.
  EXPECT_EQ(program->out().find("Register unix signal handler"), std::string::npos);
  EXPECT_TRUE(contains(syslog_lines(), "7 tokard.main: Register unix signal handler"));

  write_config("logmode = StdErr\nport = 0\n");
  program = run({});
  EXPECT_EQ(exit_status(program->wait()), 1);
  EXPECT_EQ(program->out(), banner());
  EXPECT_EQ(lines(program->err()).back(), kVerifyFailed);
}

TEST_F(TheConfiguration, ReportsAnUnknownLogModeOnSyslogAndGoesOn) {
  write_config("logmode = file\nport = 0\n");
  auto program = run({});
  EXPECT_EQ(exit_status(program->wait()), 1);
  EXPECT_EQ(program->out(), banner());
  EXPECT_EQ(program->err(), "");
  const auto logged = syslog_lines();
  ASSERT_FALSE(logged.empty());
  EXPECT_TRUE(contains(logged, "5 tokard.main: logmode from config 'FILE' not recognized"));
  EXPECT_EQ(logged.back(), "3 tokard.main: Unable to verify Configuration.");
}

TEST_F(TheConfiguration, LetsTheLogStdoutOptionOverrideTheFilesLogMode) {
  for (const std::string mode : {"STDERR", "file"}) {
    write_config("logmode = " + mode + "\nport = 0\n");
    auto program = run({"-L"});
    EXPECT_EQ(exit_status(program->wait()), 1) << mode;
    EXPECT_EQ(lines(program->out()).back(), kVerifyFailed) << mode;
    EXPECT_EQ(program->err(), "") << mode;
    EXPECT_EQ(program->out().find("not recognized"), std::string::npos) << mode;
    EXPECT_TRUE(syslog_lines().empty()) << mode;
  }
}

TEST_F(TheConfiguration, PrefersTheOptionsOverTheFileAndTheFileOverTheDefaults) {
  MosquittoBroker from_file;
  MosquittoBroker from_option;
  MqttProbe file_side(from_file.port());
  MqttProbe option_side(from_option.port());

  write_config("host = 127.0.0.1\nport = " + std::to_string(from_file.port()) + "\n");
  auto program = run({});
  const auto answer = file_side.acquire("file-client", "rt/ECU1");
  ASSERT_TRUE(answer.has_value()) << "no answer on the file's port";
  EXPECT_EQ(answer->result(), 3);
  expect_clean_stop(*program, SIGTERM);

  write_config("host = no-such-host.invalid\nport = " + std::to_string(from_file.port()) + "\n");
  program = run({"-H", "127.0.0.1", "-p", std::to_string(from_option.port())});
  const auto override_answer = option_side.acquire("option-client", "rt/ECU1");
  ASSERT_TRUE(override_answer.has_value()) << "no answer on the options' host and port";
  EXPECT_EQ(override_answer->result(), 3);
  expect_clean_stop(*program, SIGTERM);
}

TEST_F(TheConfiguration, LetsTheLogLevelOptionBeatTheFilesLevel) {
  MosquittoBroker broker;
  MqttProbe probe(broker.port());
  write_config("logmode = stdout\nloglevel = debug\nport = " + std::to_string(broker.port()) +
               "\n");

  auto program = run({});
  ASSERT_TRUE(probe.acquire("level-file", "rt/ECU1").has_value());
  expect_clean_stop(*program, SIGTERM);
  EXPECT_TRUE(contains(lines(program->out()), "DEBUG tokard.daemon: Initializing..."))
      << program->out();

  program = run({"-l", "INFO"});
  ASSERT_TRUE(probe.acquire("level-option", "rt/ECU2").has_value());
  expect_clean_stop(*program, SIGTERM);
  EXPECT_EQ(program->out().find("DEBUG "), std::string::npos) << program->out();
  EXPECT_NE(program->out().find("INFO tokard.reqhandler.acquire: Token acquired for 'ECU2'"),
            std::string::npos)
      << program->out();
}

}  // namespace
}  // namespace tokard::test
