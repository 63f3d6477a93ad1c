#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "lapi/logging/logging.h"
#include "support/log_capture.h"

namespace logging = ecu::lapi::logging;
using tokard::test::LogCapture;

namespace {

int g_evaluations = 0;
int counted() { return ++g_evaluations; }

}  // namespace

TEST(Logging, WritesNoticeInfoAndDebugOnlyForEnabledModulesAtAVerboseEnoughLevel) {
  auto off = logging::module("gate.off");
  auto on = logging::module("gate.on");
  LogCapture log("INFO");
  logging::enable("gate.on", true);
  LAPI_LOG(INFO, off) << "info on a disabled module";
  LAPI_LOG(INFO, on) << "info on an enabled module";
  LAPI_LOG(DEBUG, on) << "debug above the level";
  LAPI_LOG(NOTICE, on) << "notice";
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"INFO gate.on: info on an enabled module",
                                                    "NOTICE gate.on: notice"}));
}

TEST(Logging, WritesEmergToWarningWheneverTheModuleExists) {
  auto off = logging::module("gate.disabled");
  LogCapture log("EMERG");
  LAPI_LOG(EMERG, off) << "e";
  LAPI_LOG(ERROR, off) << "r";
  LAPI_LOG(WARNING, off) << "w";
  logging::LogModulePtr missing;
  LAPI_LOG(ERROR, missing) << "no module, no line";
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"EMERG gate.disabled: e", "ERROR gate.disabled: r",
                                                    "WARNING gate.disabled: w"}));
}

TEST(Logging, DoesNotEvaluateTheOperandsOfAStatementItDoesNotAdmit) {
  auto off = logging::module("gate.lazy");
  g_evaluations = 0;
  LogCapture log("DEBUG");
  LAPI_LOG(DEBUG, off) << counted();
  logging::configure_logging("NOTICE");
  logging::enable("gate.lazy", true);
  LAPI_LOG(DEBUG, off) << counted();
  EXPECT_EQ(g_evaluations, 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST(Logging, EnablesByPrefixOnWholeNameSegmentsIncludingModulesCreatedLater) {
  auto exact = logging::module("pfx");
  auto child = logging::module("pfx.child");
  auto lookalike = logging::module("pfxother");
  logging::enable("pfx", true);
  auto later = logging::module("pfx.later.deep");
  EXPECT_TRUE(exact->enabled());
  EXPECT_TRUE(child->enabled());
  EXPECT_TRUE(later->enabled());
  EXPECT_FALSE(lookalike->enabled());
  logging::enable("pfx.child", false);
  EXPECT_FALSE(child->enabled());
  EXPECT_TRUE(exact->enabled());
  EXPECT_EQ(logging::module("pfx.child"), child) << "the same name yields the same module";
}

TEST(Logging, FormatsLinesOnStandardErrorAndLinesWithoutModule) {
  auto mod = logging::module("fmt.err");
  logging::configure_logging("ERROR");
  logging::set_log_mode(logging::STDERR);
  testing::internal::CaptureStderr();
  LAPI_LOG(ERROR, mod) << "value " << 42 << ' ' << std::hex << 255;
  LAPI_LOG(ERROR, mod) << 255 << " starts decimal again";
  LAPI_LOG_NO_MODULE(ERROR) << "Unable to serialize response for topic app/x/pgn/response";
  LAPI_LOG_NO_MODULE(WARNING) << "below the level";
  const std::string err = testing::internal::GetCapturedStderr();
  logging::configure_logging("");
  EXPECT_EQ(err,
            "ERROR fmt.err: value 42 ff\n"
            "ERROR fmt.err: 255 starts decimal again\n"
            "ERROR: Unable to serialize response for topic app/x/pgn/response\n");
}

TEST(Logging, KeepsLinesFromConcurrentThreadsWhole) {
  auto mod = logging::module("tokard.concurrent");
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  LogCapture log("INFO");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &mod] {
      for (int i = 0; i < kLines; ++i) {
        LAPI_LOG(INFO, mod) << "thread " << t << " line " << i << " " << std::string(100, 'a' + t);
      }
    });
  }
  for (auto& th : threads) {
    th.join();
  }
  const auto& lines = log.lines();
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  for (const auto& line : lines) {
    const int t = line[line.size() - 1] - 'a';
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(line.substr(line.size() - 100), std::string(100, 'a' + t)) << line;
    EXPECT_EQ(line.rfind("INFO tokard.concurrent: thread " + std::to_string(t) + " line ", 0), 0u) << line;
  }
}

TEST(Logging, ConfiguresTheEightLevelNamesInAnyCaseAndFallsBackToNotice) {
  const char* names[] = {"EMERG", "ALERT", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG"};
  for (int level = 0; level < 8; ++level) {
    logging::configure_logging(names[level]);
    EXPECT_EQ(logging::get_log_level(), level) << names[level];
  }
  logging::configure_logging("debug");
  EXPECT_EQ(logging::get_log_level(), logging::DEBUG);
  logging::configure_logging("wArNiNg");
  EXPECT_EQ(logging::get_log_level(), logging::WARNING);
  logging::configure_logging("");
  EXPECT_EQ(logging::get_log_level(), logging::NOTICE);
  EXPECT_STREQ(logging::get_default_log_level_name(), "NOTICE");

  logging::set_log_mode(logging::STDOUT);
  testing::internal::CaptureStdout();
  logging::configure_logging("VERBOSE");
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(logging::get_log_level(), logging::NOTICE);
  EXPECT_EQ(out, "WARNING lapi.logging: Unknown log level 'VERBOSE', using NOTICE\n");
}
