// The platform layer: logging, configuration and the signal adapter.
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "com/protocol.h"
#include "lapi/config/configuration.h"
#include "lapi/rt/signal_adapter.h"
#include "support/broker.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

namespace logging = ecu::lapi::logging;

int g_evaluations = 0;
int counted() { return ++g_evaluations; }
std::ostream& spoil(std::ostream& out) {
  out.setstate(std::ios_base::badbit);
  return out;
}

TEST(Logging, AdmitsByLevelAndModuleAndFormatsEachLineAfresh) {
  auto off = logging::module("gate.off");
  auto on = logging::module("gate.on");
  auto lookalike = logging::module("gate.onx");
  logging::LogModulePtr missing;
  LogCapture log("INFO");
  logging::enable("gate.on", true);
  auto later = logging::module("gate.on.later");
  g_evaluations = 0;
  LAPI_LOG(INFO, off) << "info, disabled module" << counted();
  LAPI_LOG(INFO, lookalike) << "info, a name that only starts alike";
  LAPI_LOG(DEBUG, on) << "debug above the level" << counted();
  LAPI_LOG(ERROR, missing) << "no module" << counted();
  LAPI_LOG(WARNING, off) << "warning " << std::hex << 255 << std::setfill('0') << std::setw(4) << 1
                         << std::setprecision(2) << ' ' << 3.14159 << spoil;
  LAPI_LOG(INFO, later) << 255 << std::setw(3) << 7 << ' ' << 3.14159;
  LAPI_LOG(NOTICE, on) << "notice";
  LAPI_LOG_NO_MODULE(NOTICE) << "no module";
  LAPI_LOG_NO_MODULE(INFO) << "no module " << 6;
  LAPI_LOG_NO_MODULE(DEBUG) << "below" << counted();
  EXPECT_EQ(g_evaluations, 0);
  EXPECT_EQ(log.lines(),
            (Lines{"WARNING gate.off: warning ff0001 3.1", "INFO gate.on.later: 255  7 3.14159",
                   "NOTICE gate.on: notice", "NOTICE: no module", "INFO: no module 6"}));
  logging::enable("gate.on", false);
  EXPECT_FALSE(later->enabled());
  EXPECT_EQ(logging::module("gate.on"), on);
  logging::set_log_mode(logging::STDERR);
  testing::internal::CaptureStderr();
  LAPI_LOG(ERROR, on) << "on standard error";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR gate.on: on standard error\n");
}

TEST(Logging, TakesTheEightLevelNamesInAnyCaseAndFallsBackToNotice) {
  const char* names[] = {"emerg",   "ALERT",  "Critical", "ERROR",
                         "warning", "NOTICE", "InFo",     "DEBUG"};
  for (int level = 0; level < 8; ++level) {
    logging::configure_logging(names[level]);
    EXPECT_EQ(logging::get_log_level(), level) << names[level];
  }
  LogCapture log("DEBUG");
  logging::configure_logging("VERBOSE");
  EXPECT_EQ(logging::get_log_level(), logging::NOTICE);
  logging::configure_logging("");
  EXPECT_EQ(logging::get_log_level(), logging::NOTICE);
  EXPECT_STREQ(logging::get_default_log_level_name(), "NOTICE");
  EXPECT_EQ(log.lines(), Lines{"WARNING lapi.logging: Unknown log level 'VERBOSE', using NOTICE"});
}

TEST(Configuration, ReadsKeyValueLinesOverDefaultsAndVerifiesRequiredKeysAndThePort) {
  LogCapture log;
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  EXPECT_FALSE(config->verify()) << "client_name has no default of its own";
  EXPECT_EQ(config->get("host") + ":" + config->get("port"), "localhost:1883");
  config->set_default("client_name", "tokard");
  config->set_default("host", "ignored");
  std::istringstream in(
      "# broker\n\n   host   =  10.0.0.1 \t\nno equals here\n  # x = y\n"
      "client_name = first\nclient_name = second = with equals\nlogmode =\n");
  ecu::lapi::config::set_config_from_input(config, in);
  EXPECT_EQ(config->get("host") + "|" + config->get("client_name") + "|" + config->get("logmode") +
                "|" + config->get("  # x"),
            "10.0.0.1|second = with equals||");
  for (const auto& [port, ok] : std::vector<std::pair<std::string, bool>>{{"", false},
                                                                          {"0", false},
                                                                          {"65536", false},
                                                                          {"-1", false},
                                                                          {"18x3", false},
                                                                          {" 1883", false},
                                                                          {"1", true},
                                                                          {"1883", true},
                                                                          {"65535", true}}) {
    config->set("port", port);
    EXPECT_EQ(config->verify(), ok) << "port '" << port << "'";
  }
  config->set("host", "");
  EXPECT_FALSE(config->verify());
  EXPECT_EQ(Lines(log.lines().begin(), log.lines().begin() + 4),
            (Lines{"WARNING lapi.config: required key 'client_name' has no value",
                   "WARNING lapi.config: line 4 has no '=', ignored: no equals here",
                   "WARNING lapi.config: required key 'port' has no value",
                   "WARNING lapi.config: port '0' is not a number from 1 to 65535"}));
}

class ASignalAdapter : public testing::Test {
 protected:
  ASignalAdapter() {
    std::istringstream definitions(R"({"groups": [
        {"topic": "rt/E1", "name": "Engine", "signals": ["Speed", "Torque"]},
        {"topic": "rt/E2", "name": "Quiet", "signals": []}]})");
    adapter.load(definitions, "test");
  }
  ecu::lapi::rt::SignalAdapter adapter;
};

TEST_F(ASignalAdapter, UnpacksOnlyGroupsThatMatchTheirDefinition) {
  const std::string d("\x05\x1a\x00\xff", 4);
  using S = std::vector<protocol::SignalValue>;
  auto cut = protocol::group_frame("Engine", S{{"Speed", d}, {"Torque", d}});
  cut.payload.pop_back();
  struct Case {
    std::string topic;
    protocol::Message msg;
    std::string line;  // the DEBUG line of a refusal; "" when unpacked
  };
  for (const Case& c : std::vector<Case>{
           {"rt/E2", protocol::group_frame("Quiet", {}), ""},
           {"rt/E1",
            protocol::group_frame("Engine", S{{"Speed", d + "\x07", 0}, {"Torque", "abcd", 3}}),
            ""},
           {"rt/E3", protocol::group_frame("Engine", S{{"Speed", d}, {"Torque", d}}),
            "No signal group defined for rt/E3"},
           {"rt/E1", protocol::Message{}, "Undecodable frame on rt/E1: empty payload"},
           {"rt/E1", cut, "Undecodable frame on rt/E1: body runs past the payload"},
           {"rt/E1", protocol::group_frame("Brake", S{{"Speed", d}, {"Torque", d}}),
            "Group 'Brake' on rt/E1, expected 'Engine'"},
           {"rt/E1", protocol::group_frame("Engine", S{{"Speed", d}}),
            "Group Engine on rt/E1 has 1 signals, expected 2"},
           {"rt/E1", protocol::group_frame("Engine", S{{"Torque", d}, {"Speed", d}}),
            "Signal 0 of Engine on rt/E1 is 'Torque', expected 'Speed'"},
           {"rt/E1", protocol::group_frame("Engine", S{{"Speed", d}, {"Torque", "abc"}}),
            "Signal Torque of Engine on rt/E1 has 3 data bytes, expected at least 4"}}) {
    LogCapture log;
    const auto result = adapter.unpack(c.topic, c.msg);
    EXPECT_EQ(result.success, c.line.empty()) << c.line;
    EXPECT_EQ(log.lines(), c.line.empty() ? Lines{} : Lines{"DEBUG lapi.rt: " + c.line});
  }
  const auto engine = adapter.unpack(
      "rt/E1", protocol::group_frame("Engine", S{{"Speed", d + "\x07"}, {"Torque", d, 3}}));
  ASSERT_EQ(engine.group.signals().size(), 2u);
  EXPECT_EQ(engine.group.signals()[0].data(), (std::vector<std::uint8_t>{5, 0x1a, 0, 0xff, 7}));
  EXPECT_EQ(engine.group.name() + engine.group.signals()[1].name() +
                std::to_string(engine.group.signals()[1].status()),
            "EngineTorque3");
  EXPECT_FALSE(engine.group.is_valid());
  EXPECT_TRUE(adapter.unpack("rt/E2", protocol::group_frame("Quiet", {})).group.is_valid());
}

TEST_F(ASignalAdapter, DropsEveryDefinitionWithOneErrorForAFileItCannotUse) {
  const std::string q = R"({"topic": "rt/E2", "name": "Q", "signals": [)";
  for (const std::string& text :
       {std::string("{\"groups\": ["), std::string("[]"), std::string("{}"),
        std::string(R"({"groups": {}})"),
        std::string(R"({"groups": [{"topic": "rt/E2", "name": "Q"}]})"),
        std::string(R"({"groups": [{"topic": "", "name": "Q", "signals": []}]})"),
        R"({"groups": [)" + q + "1]}]}", R"({"groups": [)" + q + "]}, " + q + "]}]}"}) {
    LogCapture log;
    const std::string path = write_file(scratch("bad.json"), text);
    EXPECT_FALSE(adapter.load(path)) << text;
    EXPECT_EQ(adapter.group_count(), 0u);
    ASSERT_EQ(log.matching("ERROR").size(), 1u) << text;
    EXPECT_EQ(log.matching("ERROR")[0].rfind(
                  "ERROR lapi.rt: Malformed signal definitions " + path + ": ", 0),
              0u);
  }
  ASSERT_TRUE(adapter.load(write_file(scratch("good.json"), R"({"groups": [)" + q + "]}]}")));
  LogCapture log;
  EXPECT_FALSE(adapter.load("/nonexistent/rt_signals.json"));
  EXPECT_EQ(adapter.group_count(), 0u);
  EXPECT_EQ(log.lines(),
            Lines{"ERROR lapi.rt: Unable to read signal definitions /nonexistent/rt_signals.json"});
}

}  // namespace
}  // namespace tokard::test
