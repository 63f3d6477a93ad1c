// How tokard leaves: promptly whatever its connection is doing, and with a
// goodbye the broker fully processes.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "support/log_capture.h"
#include "support/mqtt_client.h"
#include "support/process.h"

namespace tokard::test {
namespace {

// A loopback listener whose accept queue is full: a connect to it stays in
// SYN_SENT, as with a broker address that drops packets.
struct Unanswering {
  Unanswering() {
    sockaddr_in addr;
    listener = loopback_socket(0, addr);
    socklen_t len = sizeof addr;
    ::bind(listener, reinterpret_cast<sockaddr*>(&addr), len);
    ::listen(listener, 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
    ::connect(filler, reinterpret_cast<sockaddr*>(&addr), len);
  }
  ~Unanswering() {
    ::close(filler);
    ::close(listener);
  }
  bool has_pending_connect() const {  // state 02 in /proc/net/tcp
    char remote[16];
    std::snprintf(remote, sizeof remote, ":%04X 02 ", port);
    return read_file("/proc/net/tcp").find(remote) != std::string::npos;
  }
  int listener, filler = ::socket(AF_INET, SOCK_STREAM, 0), port = 0;
};

TEST(Tokard, ExitsWithStatusZeroWithinEightTenthsOfASecondOfSigtermWhileItsConnectIsUnanswered) {
  Unanswering listener;
  auto tokard = tokard_on(listener.port);
  ASSERT_TRUE(wait_until([&] { return listener.has_pending_connect(); }));
  const auto signalled = std::chrono::steady_clock::now();
  ASSERT_TRUE(tokard->signal(SIGTERM));
  EXPECT_EQ(tokard->wait(5s), 0) << tokard->out();
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, 800ms);
}

TEST(Tokard, WithdrawsEverySubscriptionAndSaysGoodbyeBeforeItExits) {
  for (int round = 0; round < 3; ++round) {
    Broker broker;
    auto tokard = tokard_on(broker.port());
    MqttTestClient app(broker.port(), "goodbye-app");
    ASSERT_TRUE(app.wait_for_service()) << tokard->out();
    for (const char* ecu : {"rt/ECU1", "rt/ECU2", "rttx/ECU3", "rt/a/ECU4"}) {
      ASSERT_EQ(app.ask(ecu), Response::ACQUIRED) << ecu;
    }
    ASSERT_TRUE(tokard->signal(SIGTERM));
    ASSERT_EQ(tokard->wait(), 0);
    EXPECT_TRUE(wait_until(
        [&] { return broker.log().find("Received DISCONNECT from tokard") != std::string::npos; },
        2s));
    const std::string log = broker.log();
    std::multiset<std::string> subscribed, unsubscribed;
    const std::regex subscribe(": tokard [0-2] (\\S+)$"), unsubscribe(": tokard (\\S+)$");
    std::smatch m;
    for (const auto& line : lines_of(log)) {
      if (std::regex_search(line, m, subscribe)) {
        subscribed.insert(m[1]);
      } else if (std::regex_search(line, m, unsubscribe)) {
        unsubscribed.insert(m[1]);
      }
    }
    EXPECT_EQ(unsubscribed, subscribed) << log;
    EXPECT_EQ(log.find("Client tokard disconnected:"), std::string::npos) << "no broken pipe:\n"
                                                                          << log;
  }
}

}  // namespace
}  // namespace tokard::test
