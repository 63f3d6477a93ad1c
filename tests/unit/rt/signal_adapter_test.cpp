#include "lapi/rt/signal_adapter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "support/log_capture.h"
#include "support/rt_frames.h"

using ecu::lapi::rt::SignalAdapter;
using tokard::test::LogCapture;
using tokard::test::rt_frame;
using Signals = std::vector<tokard::test::RtSignalSpec>;

namespace {

const std::string kBytes("\x05\x1a\x00\xff", 4);

class SignalAdapterTest : public testing::Test {
 protected:
  SignalAdapterTest() {
    std::istringstream definitions(R"({"groups": [
        {"topic": "rt/E1", "name": "Engine", "signals": ["Speed", "Torque"]},
        {"topic": "rt/E2", "name": "Quiet", "signals": []}]})");
    adapter.load(definitions, "test");
  }
  ecu::lapi::rt::UnpackResult engine(const Signals& signals, const std::string& topic = "rt/E1") {
    return adapter.unpack(topic, rt_frame("Engine", signals));
  }
  SignalAdapter adapter;
};
using ASignalAdapter = SignalAdapterTest;

TEST_F(ASignalAdapter, UnpacksAMatchingFrameWithItsBytesAndStatuses) {
  const auto result = engine({{"Speed", kBytes + "\x07", 0}, {"Torque", "abcd", 3}});
  ASSERT_TRUE(result.success);
  EXPECT_EQ(result.group.name(), "Engine");
  ASSERT_EQ(result.group.signals().size(), 2u);
  EXPECT_EQ(result.group.signals()[0].data(), (std::vector<std::uint8_t>{5, 0x1a, 0, 0xff, 7}));
  EXPECT_EQ(result.group.signals()[1].name(), "Torque");
  EXPECT_EQ(result.group.signals()[1].status(), 3u);
}

TEST_F(ASignalAdapter, JudgesAGroupValidWhenEveryStatusIsZero) {
  EXPECT_TRUE(engine({{"Speed", kBytes, 0}, {"Torque", kBytes, 0}}).group.is_valid());
  EXPECT_FALSE(engine({{"Speed", kBytes, 0}, {"Torque", kBytes, 1}}).group.is_valid());
  const auto quiet = adapter.unpack("rt/E2", rt_frame("Quiet", {}));
  EXPECT_TRUE(quiet.success && quiet.group.is_valid());
}

TEST_F(ASignalAdapter, RefusesTopicsWithoutDefinitionWithAWarning) {
  LogCapture log;
  EXPECT_FALSE(engine({{"Speed", kBytes}, {"Torque", kBytes}}, "rt/E3").success);
  EXPECT_FALSE(engine({{"Speed", kBytes}, {"Torque", kBytes}}, "rttx/E1").success);
  EXPECT_TRUE(log.has("WARNING lapi.rt: No signal group defined for rt/E3"));
}

TEST_F(ASignalAdapter, RefusesFramesThatFailTheHeaderChecks) {
  const auto good = rt_frame("Engine", {{"Speed", kBytes}, {"Torque", kBytes}});
  auto truncated = good;
  truncated.payload.pop_back();
  auto unused_protocol = good;
  unused_protocol.payload[1] = 0;  // low byte of the protocol type
  for (const auto& frame : {ecu::lapi::com::Message{}, truncated, unused_protocol}) {
    EXPECT_FALSE(adapter.unpack("rt/E1", frame).success);
  }
}

TEST_F(ASignalAdapter, RefusesGroupsThatDoNotMatchTheirDefinition) {
  EXPECT_FALSE(
      adapter.unpack("rt/E1", rt_frame("Brake", {{"Speed", kBytes}, {"Torque", kBytes}})).success);
  EXPECT_FALSE(engine({{"Torque", kBytes}, {"Speed", kBytes}}).success);
  EXPECT_FALSE(engine({{"Speed", kBytes}}).success);
  EXPECT_FALSE(engine({{"Speed", kBytes}, {"Torque", kBytes}, {"X", kBytes}}).success);
  EXPECT_FALSE(engine({{"Speed", kBytes}, {"Torq", kBytes}}).success);
}

TEST_F(ASignalAdapter, RefusesASignalWithFewerThanFourDataBytes) {
  LogCapture log;
  EXPECT_FALSE(engine({{"Speed", kBytes}, {"Torque", "abc"}}).success);
  EXPECT_TRUE(log.has(
      "WARNING lapi.rt: Signal Torque of Engine on rt/E1 has 3 data bytes, expected at least 4"));
}

using SignalDefinitions = SignalAdapterTest;

TEST_F(SignalDefinitions, LoadFromTheShippedExampleFile) {
  ASSERT_TRUE(adapter.load(TOKARD_SOURCE_DIR "/packaging/rt_signals.json"));
  EXPECT_TRUE(
      adapter.unpack("rt/ECU1", rt_frame("EngineState", {{"Speed", kBytes}, {"Torque", kBytes}}))
          .success);
  EXPECT_EQ(adapter.group_count(), 2u);
}

TEST_F(SignalDefinitions, ComeFromTheEnvironmentsPathOrTheDefault) {
  ::setenv("LAPI_RT_SIGNALS", "/tmp/mine.json", 1);
  EXPECT_EQ(SignalAdapter::definitions_path(), "/tmp/mine.json");
  ::unsetenv("LAPI_RT_SIGNALS");
  EXPECT_EQ(SignalAdapter::definitions_path(), "/etc/kesto/rt_signals.json");
}

TEST_F(SignalDefinitions, AreAllDroppedWithOneErrorWhenTheFileIsMissing) {
  LogCapture log;
  EXPECT_FALSE(adapter.load("/nonexistent/rt_signals.json"));
  EXPECT_FALSE(adapter.unpack("rt/E2", rt_frame("Quiet", {})).success);
  EXPECT_EQ(log.matching("ERROR"),
            (std::vector<std::string>{
                "ERROR lapi.rt: Unable to read signal definitions /nonexistent/rt_signals.json"}));
}

TEST_F(SignalDefinitions, AreAllDroppedWithOneErrorWhenTheFileIsMalformed) {
  const std::string quiet = R"({"topic": "rt/E2", "name": "Q", "signals": [)";
  for (const std::string& text :
       {std::string("{\"groups\": ["), std::string("[]"), std::string(R"({"groups": {}})"),
        std::string(R"({"groups": [{"topic": "rt/E2", "name": "Q"}]})"),
        std::string(R"({"groups": [{"topic": "", "name": "Q", "signals": []}]})"),
        R"({"groups": [)" + quiet + "1]}]}", R"({"groups": [)" + quiet + "]}, " + quiet + "]}]}"}) {
    SCOPED_TRACE(text);
    LogCapture log;
    EXPECT_FALSE(adapter.load(tokard::test::write_temp_file("bad.json", text)));
    EXPECT_EQ(adapter.group_count(), 0u);
    const auto errors = log.matching("ERROR");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("ERROR lapi.rt: Malformed signal definitions ", 0), 0u);
  }
}

}  // namespace
