// A second controller's broker bridged to tokard's, as in
// packaging/mosquitto/controller-bridge.conf: applications there get their
// tokens from the one tokard.
#include <gtest/gtest.h>

#include <regex>

#include "support/mqtt_client.h"
#include "support/process.h"

namespace tokard::test {
namespace {

TEST(ABridgedBroker, CarriesRequestsAnswersAndTokenStateAndRecoversFromARestart) {
  Broker main;
  const int port = free_port();
  Broker second(port, write_file(scratch("bridge.conf"), bridge_config(port, main.port())), true);
  auto tokard = tokard_on(main.port());
  MqttTestClient here(main.port(), "here"), there(port, "there");
  ASSERT_TRUE(there.wait_for_service(20s)) << second.log();
  EXPECT_EQ(there.ask("rt/ECU1"), Response::ACQUIRED);
  EXPECT_EQ(here.ask("rt/ECU1"), Response::BUSY);
  Process status(TOKCTL_PROGRAM, {"status", "ECU1", "-H", "127.0.0.1", "-p", std::to_string(port)});
  EXPECT_EQ(status.wait(), 0);
  EXPECT_TRUE(std::regex_search(status.out(), std::regex("tokard: online\n(.*\n)?ECU1 +there ")))
      << status.out();
  there.send(Request::RELEASE, "rt/ECU1");
  EXPECT_TRUE(wait_until([&] { return here.ask("rt/ECU1", "", 500ms) == Response::ACQUIRED; }));

  second.stop();
  second.start();
  MqttTestClient again(port, "again");
  EXPECT_TRUE(again.wait_for_service(20s)) << second.log();
  EXPECT_EQ(again.ask("rt/ECU1"), Response::BUSY);
}

}  // namespace
}  // namespace tokard::test
