#include "integration/program/program_test.h"

namespace tokard::test {
namespace {

using TheCommandLine = ProgramTest;

TEST_F(TheCommandLine, PrintsTheBannerThenTheHelpOnStandardErrorAndFailsWhenAskedForHelp) {
  for (const auto& args : std::vector<std::vector<std::string>>{{"-h"}, {"--help"}}) {
    auto program = run_installed(args);
    const auto status = program->wait();
    EXPECT_EQ(exit_status(status), 1) << args[0];
    EXPECT_EQ(program->out(), banner()) << args[0];
    EXPECT_EQ(program->err(), help()) << args[0];
  }
}

TEST_F(TheCommandLine, PrintsTheVersionLineOnBothStreamsAndSucceeds) {
  // "<branch> - <version> - <commit> - <date time zone> - <build type>"
  std::vector<std::string> parts;
  const std::string info = build_info;
  for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 3) {
    end = info.find(" - ", begin);
    parts.push_back(info.substr(begin, end == std::string::npos ? end : end - begin));
  }
  ASSERT_EQ(parts.size(), 5u) << info;
  EXPECT_EQ(std::count(parts[1].begin(), parts[1].end(), '.'), 2) << info;
  EXPECT_EQ(std::count(parts[3].begin(), parts[3].end(), ' '), 2) << info;
  for (const auto& part : parts) {
    EXPECT_FALSE(part.empty()) << info;
  }
  // Options before -V are stored but unused; options after it are never read.
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"-V"}, {"--version"}, {"-p", "1884", "-V"}, {"-V", "--no-such-option"}}) {
    auto program = run_installed(args);
    const auto status = program->wait();
    EXPECT_EQ(exit_status(status), 0) << args[0];
    EXPECT_EQ(program->out(), banner()) << args[0];
    EXPECT_EQ(program->err(), banner()) << args[0];
  }
}

TEST_F(TheCommandLine, PrintsTheHelpAfterTheParsersComplaintAndFailsOnAWrongCommandLine) {
  // --log-stdout takes an argument although -L does not, so as the last
  // word it lacks one.
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"-x"}, {"--no-such-option"}, {"--log-stdout"}, {"-l"}, {"-p"}, {"-H"}}) {
    auto program = run_installed(args);
    const auto status = program->wait();
    EXPECT_EQ(exit_status(status), 1) << args[0];
    EXPECT_EQ(program->out(), banner()) << args[0];
    const std::string& err = program->err();
    ASSERT_GT(err.size(), help().size()) << args[0] << ": " << err;
    const std::string complaint = err.substr(0, err.size() - help().size());
    EXPECT_EQ(complaint.rfind("tokard: ", 0), 0u) << complaint;
    EXPECT_EQ(complaint.back(), '\n') << complaint;
    EXPECT_EQ(err.substr(complaint.size()), help()) << args[0];
  }
}

TEST_F(TheCommandLine, LetsLogStdoutSwallowTheNextWord) {
  // "-p" becomes the argument of --log-stdout, so the port stays the file's.
  MosquittoBroker broker;
  write_config("port = " + std::to_string(broker.port()) + "\n");
  auto program = run({"--log-stdout", "-p", "1884", "-l", "DEBUG"});
  MqttProbe probe(broker.port());
  const auto response = probe.acquire("swallow", "rt/ECU1");
  ASSERT_TRUE(response.has_value()) << "no answer on the file's port; stdout:\n" << program->out();
  EXPECT_EQ(response->result(), 3);
  ASSERT_TRUE(program->wait_for_out("DEBUG tokard.daemon: Starting...\n"));
  expect_clean_stop(*program, SIGTERM);
}

}  // namespace
}  // namespace tokard::test
