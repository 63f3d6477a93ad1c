// tokard's state on the broker: its availability, a retained status per ECU,
// and tokens that survive a restart of tokard.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>

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

Bytes status_frame(const std::string& ecu, const std::string& holder, const std::string& boot_id,
                   std::uint64_t generation = 7) {
  TokenStatus status;
  status.set_ecu(ecu), status.set_holder(holder), status.set_generation(generation),
      status.set_boot_id(boot_id);
  status.add_topics("rt/" + ecu), status.add_topics("rttx/" + ecu);
  return protocol::frame(status).payload;
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
  EXPECT_TRUE(
      tokard->wait_for_out("WARNING tokard.status: Ignoring retained status on "
                           "system/tokard/status/ECU5: shorter than a header\n"));
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

// How a broker loses its retained statuses: restarted without persistence,
// or killed with persistence on before its next autosave.
struct Loss {
  const char* name;
  bool persistence;
};

class ABrokerThatLosesItsState : public testing::TestWithParam<Loss> {};

TEST_P(ABrokerThatLosesItsState, GetsTheStatusesBackSoARestartedTokardKeepsTheHolder) {
  const std::string name = GetParam().name;
  std::string config = read_file(TOKARD_TEST_MOSQUITTO_CONF);
  if (GetParam().persistence) {
    std::remove(scratch(name + ".db").c_str());
    config += "persistence true\nautosave_interval 3600\npersistence_file " + scratch(name + ".db");
  }
  Broker broker(free_port(), write_file(scratch(name + ".conf"), config + "\n"));
  MqttTestClient a(broker.port(), "a");
  auto tokard = tokard_on(broker.port());
  ASSERT_TRUE(a.wait_for_service()) << tokard->out();
  EXPECT_EQ(a.ask("rt/ECU1"), Response::ACQUIRED);
  a.send(Request::RELEASE, "rt/ECU1");
  EXPECT_EQ(a.ask("rt/PROBE"), Response::ACQUIRED) << "after the release";
  broker.stop();  // saved with persistence: ECU1 free, generation 1
  broker.start();
  MqttTestClient a2(broker.port(), "a2");
  ASSERT_TRUE(wait_until([&] { return a2.ask("rt/ECU1", "a", 500ms) == Response::ACQUIRED; }));
  GetParam().persistence ? broker.kill() : broker.stop();
  broker.start();

  MqttTestClient a3(broker.port(), "a3"), watcher(broker.port(), "watcher");
  watcher.subscribe(protocol::status_topic("ECU1"));
  ASSERT_TRUE(wait_until([&] { return a3.ask("rt/ECU1", "a", 500ms) == Response::ACQUIRED; }));
  // That answer may still be the one to a2's request, sent again by
  // libmosquitto after the reconnect; the broker holds a's token again only
  // once the statuses are out.
  ASSERT_TRUE(
      wait_until([&] { return next_status(watcher, "ECU1") == "a 2 rt/ECU1 rttx/ECU1"; }, 10s));
  ASSERT_TRUE(tokard->signal(SIGKILL));
  tokard->wait();
  tokard = tokard_on(broker.port());
  MqttTestClient b2(broker.port(), "b2");
  ASSERT_TRUE(b2.wait_for_service()) << tokard->out();
  EXPECT_EQ(b2.ask("rt/ECU1", "b"), Response::BUSY) << tokard->out();
  Process status(TOKCTL_PROGRAM,
                 {"status", "ECU1", "-H", "127.0.0.1", "-p", std::to_string(broker.port())});
  EXPECT_EQ(status.wait(), 0);
  EXPECT_TRUE(std::regex_search(status.out(),
                                std::regex("\nECU1 +a +[0-9]+ s +2 +no +rt/ECU1 rttx/ECU1\n")))
      << "a holds it, and the generation goes on:\n"
      << status.out();
}

INSTANTIATE_TEST_SUITE_P(Faults, ABrokerThatLosesItsState,
                         testing::Values(Loss{"RestartedWithoutPersistence", false},
                                         Loss{"KilledWithinItsAutosaveInterval", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TokardsState, LeavesNoRetainedStatusForEcusNobodyHeld) {
  // Deep enough a queue for tokard that no release is dropped.
  Broker broker(free_port(),
                write_file(scratch("deep.conf"),
                           read_file(TOKARD_TEST_MOSQUITTO_CONF) + "max_queued_messages 20000\n"));
  MqttTestClient a(broker.port(), "a"), old(broker.port(), "old");
  // Never held, as an older tokard kept it.
  old.publish(protocol::status_topic("old0"), status_frame("old0", "", read_boot_id(), 0), 1, true);
  auto tokard = tokard_on(broker.port());
  ASSERT_TRUE(a.wait_for_service()) << tokard->out();
  constexpr int kNames = 10000;
  for (int i = 0; i < kNames; ++i) {
    a.send(Request::RELEASE, "rt/junk" + std::to_string(i));
  }
  EXPECT_EQ(a.ask("rt/PROBE", "", 30s), Response::ACQUIRED) << "after every release";
  ASSERT_TRUE(tokard->signal(SIGTERM));
  EXPECT_EQ(tokard->wait(), 0);

  const std::size_t restart = broker.log().size();
  tokard = tokard_on(broker.port());
  ASSERT_TRUE(a.wait_for_service()) << tokard->out();
  EXPECT_TRUE(tokard->wait_for_out("INFO tokard.status: Read back 1 token statuses\n"));
  EXPECT_EQ(broker.log().find("/junk", restart), std::string::npos) << "subscribed again";
  Process status(TOKCTL_PROGRAM,
                 {"status", "-H", "127.0.0.1", "-p", std::to_string(broker.port())});
  EXPECT_EQ(status.wait(), 0);
  EXPECT_EQ(lines_of(status.out()).size(), 3u) << "online, the heading, PROBE:\n" << status.out();
}

}  // namespace
}  // namespace tokard::test
