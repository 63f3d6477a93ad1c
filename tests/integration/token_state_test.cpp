// tokard's state on the broker: its availability, a retained status per ECU,
// and tokens that survive a restart of tokard.
#include <gtest/gtest.h>

#include "status/status_publisher.h"
#include "support/log_capture.h"
#include "support/mqtt_client.h"
#include "support/process.h"
#include "tokard/pb/status.pb.h"

namespace tokard::test {
namespace {

using pb::TokenStatus;

std::string text(const std::optional<MqttTestClient::Received>& msg) {
  return msg ? std::string(msg->payload.begin(), msg->payload.end()) : "(nothing)";
}

// "holder gen blocked topics" of the next status of `ecu`, "-" for no holder.
std::string next_status(MqttTestClient& watcher, const std::string& ecu) {
  const auto msg = watcher.next(protocol::status_topic(ecu));
  ecu::lapi::com::Message frame;
  frame.payload = msg ? msg->payload : Bytes{};
  const auto status = protocol::read<TokenStatus>(frame);
  if (!status.ok) {
    return "(no status)";
  }
  const TokenStatus& s = status.value;
  std::string line = (s.has_holder() ? s.holder() : "-") + " " + std::to_string(s.generation()) +
                     (s.blocked() ? " blocked" : "") +
                     (s.boot_id() == read_boot_id() ? "" : " other-boot");
  for (const auto& topic : s.topics()) {
    line += " " + topic;
  }
  return line;
}

Bytes status_frame(const std::string& ecu, const std::string& holder, const std::string& boot_id) {
  TokenStatus status;
  status.set_ecu(ecu), status.set_holder(holder), status.set_generation(7),
      status.set_boot_id(boot_id);
  status.add_topics("rt/" + ecu), status.add_topics("rttx/" + ecu);
  return protocol::frame(status).payload;
}

Bytes engine_state(bool valid) {
  const std::string d("\x05\x1a\x00\xff", 4);
  return protocol::group_frame("EngineState", {{"Speed", d, valid ? 0u : 3u}, {"Torque", d, 0}})
      .payload;
}

TEST(TokardsState, ShowsAvailabilityAndEveryTokenChangeButARenewal) {
  Broker broker;
  MqttTestClient watcher(broker.port(), "watcher"), a(broker.port(), "A"), b(broker.port(), "B"),
      gw(broker.port(), "gw");
  watcher.subscribe("system/tokard/#");
  auto tokard = tokard_on(broker.port());
  EXPECT_EQ(text(watcher.next(protocol::kStateTopic)), "online");
  ASSERT_TRUE(a.wait_for_service()) << tokard->out();
  EXPECT_EQ(next_status(watcher, "PROBE"), "A 1 rt/PROBE rttx/PROBE") << "created and granted";

  EXPECT_EQ(a.ask("rt/PROBE"), Response::ACQUIRED);  // a renewal: no status
  EXPECT_EQ(b.ask("rt/PROBE"), Response::BUSY);
  a.send(Request::RELEASE, "rt/PROBE");
  EXPECT_EQ(next_status(watcher, "PROBE"), "- 1 rt/PROBE rttx/PROBE") << "released";
  EXPECT_EQ(b.ask("rt/PROBE"), Response::ACQUIRED);
  EXPECT_EQ(next_status(watcher, "PROBE"), "B 2 rt/PROBE rttx/PROBE");

  EXPECT_EQ(b.ask("rt/ECU1"), Response::ACQUIRED);
  EXPECT_EQ(next_status(watcher, "ECU1"), "B 1 rt/ECU1 rttx/ECU1");
  EXPECT_EQ(b.ask("rt/bus0/ECU1"), Response::ACQUIRED);
  EXPECT_EQ(next_status(watcher, "ECU1"), "B 1 rt/ECU1 rttx/ECU1 rt/bus0/ECU1 rttx/bus0/ECU1");
  gw.publish("rt/ECU1", engine_state(true));
  EXPECT_EQ(next_status(watcher, "ECU1"),
            "B 1 blocked rt/ECU1 rttx/ECU1 rt/bus0/ECU1 rttx/bus0/ECU1");
  gw.publish("rttx/ECU1", engine_state(false));
  EXPECT_EQ(next_status(watcher, "ECU1"), "- 1 rt/ECU1 rttx/ECU1 rt/bus0/ECU1 rttx/bus0/ECU1");

  EXPECT_EQ(a.ask("rt/+"), Response::ACQUIRED) << "a name that cannot form a topic is still served";
  EXPECT_TRUE(tokard->wait_for_out("WARNING tokard.status: Status of ECU '+' not published\n"));
  ASSERT_TRUE(tokard->signal(SIGTERM));
  EXPECT_EQ(tokard->wait(), 0);
  EXPECT_EQ(text(watcher.next(protocol::kStateTopic)), "offline");
  EXPECT_EQ(watcher.count(protocol::status_topic("PROBE")), 3u) << "nothing else was published";

  tokard = tokard_on(broker.port());
  EXPECT_EQ(text(watcher.next(protocol::kStateTopic)), "online");
  ASSERT_TRUE(tokard->signal(SIGKILL));
  EXPECT_EQ(text(watcher.next(protocol::kStateTopic)), "offline") << "the will";
}

TEST(TokardsState, GivesTokensBackToTheirHoldersAfterARestartOfTokard) {
  Broker broker;
  MqttTestClient a(broker.port(), "A"), b(broker.port(), "B"), old(broker.port(), "old"),
      watcher(broker.port(), "watcher");
  old.publish(protocol::status_topic("ECU2"), status_frame("ECU2", "X", "another-boot"), 1, true);
  old.publish(protocol::status_topic("ECU3"), status_frame("ECU4", "X", read_boot_id()), 1, true);
  old.publish(protocol::status_topic("ECU5"), Bytes{1, 2, 3}, 1, true);
  auto tokard = tokard_on(broker.port());
  ASSERT_TRUE(a.wait_for_service()) << tokard->out();
  EXPECT_EQ(a.ask("rt/ECU1"), Response::ACQUIRED);
  ASSERT_TRUE(tokard->signal(SIGKILL));
  tokard->wait();

  tokard = tokard_on(broker.port());
  ASSERT_TRUE(b.wait_for_service()) << tokard->out();
  EXPECT_EQ(b.ask("rt/ECU1"), Response::BUSY) << tokard->out();
  EXPECT_EQ(a.ask("rt/ECU1"), Response::ACQUIRED);
  EXPECT_EQ(b.ask("rt/ECU2"), Response::ACQUIRED) << "written in another boot: restored free";
  EXPECT_EQ(b.ask("rt/ECU3"), Response::ACQUIRED) << "a status of another ECU restores nothing";
  EXPECT_EQ(
      matching(lines_of(tokard->out()), "WARNING tokard.status: Ignoring retained status on "),
      (Lines{"WARNING tokard.status: Ignoring retained status on system/tokard/status/ECU3: its "
             "ECU is not the one of its topic",
             "WARNING tokard.status: Ignoring retained status on system/tokard/status/ECU5: "
             "shorter than a header"}));
  // A stops renewing: B gets the token once A has been silent for 10 s.
  EXPECT_TRUE(wait_until([&] { return b.ask("rt/ECU1", "", 1s) == Response::ACQUIRED; }, 15s));
  watcher.subscribe(protocol::status_topic("ECU1"));
  EXPECT_EQ(next_status(watcher, "ECU1"), "B 2 rt/ECU1 rttx/ECU1") << "the generation goes on";
}

TEST(TokardsState, IsNeitherKeptNorReadBackWithTokenStatusOff) {
  Broker broker;
  MqttTestClient b(broker.port(), "B"), old(broker.port(), "old");
  old.publish(protocol::status_topic("ECU1"), status_frame("ECU1", "X", read_boot_id()), 1, true);
  auto tokard =
      tokard_on(broker.port(), "INFO",
                {"TOKARD_CONFIG=" + write_file(scratch("off.conf"), "token_status = off\n")});
  ASSERT_TRUE(b.wait_for_service()) << tokard->out();
  EXPECT_EQ(b.ask("rt/ECU1"), Response::ACQUIRED);
  MqttTestClient watcher(broker.port(), "watcher");
  watcher.subscribe("system/tokard/#");
  EXPECT_EQ(next_status(watcher, "ECU1"), "X 7 rt/ECU1 rttx/ECU1") << "the old status, untouched";
  EXPECT_EQ(watcher.count(protocol::status_topic("PROBE")), 0u);
}

}  // namespace
}  // namespace tokard::test
