// The platform layer: logging, configuration, the signal adapter, and the
// frame of every broker message: golden bytes, and the error code and log
// line of each header check.
#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <new>
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
  LAPI_LOG_NO_MODULE(INFO) << "no module " << 6;
  LAPI_LOG_NO_MODULE(DEBUG) << "below" << counted();
  EXPECT_EQ(g_evaluations, 0);
  EXPECT_EQ(log.lines(),
            (Lines{"WARNING gate.off: warning ff0001 3.1", "INFO gate.on.later: 255  7 3.14159",
                   "NOTICE gate.on: notice", "INFO: no module 6"}));
  logging::enable("gate.on", false);
  EXPECT_FALSE(later->enabled());
  EXPECT_EQ(logging::module("gate.on"), on);
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
  for (const char* bad : {"", "0", "65536", "-1", "18x3", " 1883"}) {
    config->set("port", bad);
    EXPECT_FALSE(config->verify()) << "port '" << bad << "'";
  }
  for (const char* good : {"1", "1883", "9001", "65535"}) {
    config->set("port", good);
    EXPECT_TRUE(config->verify()) << good;
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
  {
    LogCapture log;
    const std::string path =
        write_file(scratch("second.json"), R"({"groups": [)" + q + "]}, {\"topic\": 3}]}");
    EXPECT_FALSE(adapter.load(path));
    EXPECT_EQ(log.lines(), Lines{"ERROR lapi.rt: Malformed signal definitions " + path +
                                 ": group 2 needs a topic, a name and a list of signal names"});
  }
  ASSERT_TRUE(adapter.load(write_file(scratch("good.json"), R"({"groups": [)" + q + "]}]}")));
  LogCapture log;
  EXPECT_FALSE(adapter.load("/nonexistent/rt_signals.json"));
  EXPECT_EQ(adapter.group_count(), 0u);
  EXPECT_EQ(log.lines(),
            Lines{"ERROR lapi.rt: Unable to read signal definitions /nonexistent/rt_signals.json"});
}

using ecu::lapi::com::PbInternalMessageAdapter;
using protocol::Message;
using protocol::Request;
using Bytes = std::vector<std::uint8_t>;
namespace err = ecu::lapi::com::err;

// action=1, request_topic="rt/ECU1", client_name="app1"
const Bytes kAcquireBody = {0x08, 0x01, 0x12, 0x07, 'r', 't', '/', 'E', 'C',
                            'U',  '1',  0x1a, 0x04, 'a', 'p', 'p', '1'};

// Golden frame: field 1 (fixed64 length word), field 2 (fixed64 time), body.
Message golden(std::uint64_t protocol, std::uint64_t header_len, std::uint64_t body_len,
               const Bytes& body, std::uint64_t time = 0x0102030405060708) {
  Message msg;
  const std::uint64_t words[] = {protocol | (header_len << 16) | (body_len << 32), time};
  for (int w = 0; w < 2; ++w) {
    msg.payload.push_back(w == 0 ? 0x09 : 0x11);
    for (int i = 0; i < 8; ++i) {
      msg.payload.push_back(static_cast<std::uint8_t>(words[w] >> (8 * i)));
    }
  }
  msg.payload.insert(msg.payload.end(), body.begin(), body.end());
  return msg;
}

TEST(AFrame, HasTheGoldenBytesAndDecodesBackToTheRequest) {
  const Message msg = protocol::request_frame(Request::ACQUIRE, "rt/ECU1", "app1");
  EXPECT_EQ(msg.payload, golden(1, 18, 17, kAcquireBody, msg.timestamp_ns).payload);
  EXPECT_TRUE(msg.qos == 0 && !msg.extra_flag) << "QoS 0, not retained";
  EXPECT_TRUE(msg.timestamp_set && msg.timestamp_ns > 0);

  Bytes trailing = kAcquireBody;
  trailing.insert(trailing.end(), {0xde, 0xad});  // bytes past the declared body are ignored
  const auto back = protocol::read<Request>(golden(1, 18, 17, trailing));
  ASSERT_TRUE(back.ok);
  Message reordered = golden(1, 18, 17, kAcquireBody);  // time before length: read by the parser
  std::rotate(reordered.payload.begin(), reordered.payload.begin() + 9,
              reordered.payload.begin() + 18);
  EXPECT_TRUE(protocol::read<Request>(reordered).ok);
  EXPECT_EQ(back.error, err::NO_ERROR);
  EXPECT_EQ(back.value.SerializeAsString(), std::string(kAcquireBody.begin(), kAcquireBody.end()));

  const auto big = protocol::read<protocol::Response>(
      protocol::response_frame(protocol::Response::BUSY, std::string(70000, 'x')));
  ASSERT_TRUE(big.ok);
  EXPECT_EQ(big.value.request_topic().size(), 70000u);
  EXPECT_EQ(protocol::frame(protocol::Response()).payload.size(), 18u);
}

struct Refusal {
  Message msg;
  err::PbInternalDeserializationError code;
  const char* line;       // "" when none is logged
  std::int32_t protocol;  // the type the adapter sends afterwards
};

TEST(AFrame, IsRefusedWithTheCodeAndLineOfTheFirstHeaderCheckItFails) {
  Message garbage, short_header = golden(1, 18, 0, {});
  garbage.payload.assign(18, 0xff);
  short_header.payload.resize(17);
  const std::string kShort =
      "ERROR lapi.com.messageadapter: Total length is smaller then expected header length";
  const std::string kBody = "EMERG lapi.com.messageadapter: Unable to deserialize protobuf";
  const std::string kLength = "ERROR lapi.com.messageadapter: Specified hdr-len does not comply.";
  const std::vector<Refusal> table = {
      {Message{}, err::TOO_SHORT, "", 1},
      {short_header, err::TOO_SHORT, kShort.c_str(), 1},
      {garbage, err::HEADER_DECODE, "ERROR lapi.com.messageadapter: Unable to decode the header.",
       1},
      {golden(0, 18, 0, {}), err::PROTOCOL_NOT_USED,
       "ERROR lapi.com.messageadapter: ProtocolType is set to not used!", 0},
      {golden(7, 17, 0, {}), err::HEADER_LENGTH, kLength.c_str(), 7},
      {golden(1, 19, 0, {}), err::HEADER_LENGTH, kLength.c_str(), 1},
      {golden(1, 18, 18, kAcquireBody), err::BODY_DECODE, kBody.c_str(), 1},
      {golden(1, 18, 0xFFFFFFFF, kAcquireBody), err::BODY_DECODE, kBody.c_str(), 1},
      {golden(0xBEEF, 18, 3, {0x12, 0x07, 'r'}), err::BODY_DECODE, kBody.c_str(), 0xBEEF},
  };
  for (const auto& c : table) {
    SCOPED_TRACE(c.line);
    LogCapture log;
    PbInternalMessageAdapter<Request> adapter;
    const auto outcome = adapter.deserialize(c.msg);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, c.code);
    EXPECT_FALSE(outcome.value.has_client_name());
    EXPECT_EQ(log.lines(), *c.line ? Lines{c.line} : Lines{});
    // A later frame of this adapter carries the protocol type it read.
    const Bytes sent = adapter.serialize(Request()).second.payload;
    EXPECT_EQ(sent[1] | sent[2] << 8, c.protocol);
  }
}

// A body whose serialisation fails in the two ways the runtime can fail.
struct FailingBody {
  bool throws = false;
  std::size_t ByteSizeLong() const { return 4; }
  bool SerializeToArray(void*, int) const {
    if (throws) {
      throw std::bad_alloc();
    }
    return false;
  }
  bool ParseFromArray(const void*, int) { return true; }
};

TEST(AFrame, IsNotBuiltFromABodyThatFailsToSerialize) {
  LogCapture log;
  PbInternalMessageAdapter<FailingBody> adapter;
  for (const bool throws : {false, true}) {
    const auto [ok, msg] = adapter.serialize(FailingBody{throws});
    EXPECT_FALSE(ok);
    EXPECT_TRUE(msg.payload.empty());
    EXPECT_FALSE(msg.timestamp_set);
  }
  EXPECT_EQ(log.lines(),
            (Lines{"ERROR lapi.com.messageadapter: unable to serialize body!",
                   "EMERG lapi.com.messageadapter: Unable to allocate memory for serialization!"}));
}

}  // namespace
}  // namespace tokard::test
