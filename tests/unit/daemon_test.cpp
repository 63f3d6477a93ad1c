// The daemon's signal handler, and readiness, watchdog and stopping as the
// service manager sees them: the datagrams on the socket NOTIFY_SOCKET names.
#include "daemon/tokard_daemon.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "daemon/service_notifier.h"
#include "support/fake_transport.h"

namespace tokard::test {
namespace {

void noop_handler(int) {}

sighandler_t handler_of(int sig) {
  struct sigaction action {};
  sigaction(sig, nullptr, &action);
  return action.sa_handler;
}

TEST(ASignalHandler, ActsOnceOnSigintOrSigtermAndIgnoresOtherSignals) {
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  std::shared_ptr<ecu::lapi::com::ITransportClient> client =
      std::make_shared<FakeTransportClient>();
  TokarDaemon daemon(config, client);
  for (const int sig : {SIGINT, SIGTERM}) {
    signal(SIGINT, noop_handler);
    signal(SIGTERM, noop_handler);
    *instance_cell() = &daemon;
    on_signal(SIGUSR1);
    EXPECT_EQ(*instance_cell(), &daemon);
    EXPECT_EQ(handler_of(SIGINT), &noop_handler);
    EXPECT_EQ(handler_of(SIGTERM), &noop_handler);
    on_signal(sig);
    EXPECT_EQ(*instance_cell(), nullptr);
    EXPECT_EQ(handler_of(SIGINT), SIG_DFL);
    EXPECT_EQ(handler_of(SIGTERM), SIG_DFL);
  }
}

TEST(AServiceNotifier, TellsAListeningManagerEachStateAndFeedsOnlyItsOwnWatchdog) {
  const std::string path = testing::TempDir() + "notify-" + std::to_string(::getpid());
  const int manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  // NOTIFY_SOCKET set, WATCHDOG_PID this process: what ready(), watchdog() and stopping() send.
  const auto received = [manager] {
    std::string got;
    char buffer[64];
    for (ssize_t n; (n = ::recv(manager, buffer, sizeof buffer, 0)) > 0;)
      got += std::string(buffer, n) + " ";
    return got;
  };
  const std::vector<std::tuple<bool, bool, std::string>> cases{
      {true, true, "READY=1 WATCHDOG=1 STOPPING=1 "},
      {true, false, "READY=1 STOPPING=1 "},
      {false, true, ""}};
  for (const auto& [listening, watched, sent] : cases) {
    if (listening)
      ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "5000000", 1);
    ::setenv("WATCHDOG_PID", std::to_string(watched ? ::getpid() : 1).c_str(), 1);
    ServiceNotifier notifier;
    notifier.ready();
    notifier.watchdog();
    notifier.stopping();
    EXPECT_EQ(received(), TOKARD_SYSTEMD ? sent : "");
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
      ::unsetenv(name);
  }
  // The daemon is ready once, at its first connect.
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  auto fake = std::make_shared<FakeTransportClient>();
  std::shared_ptr<ecu::lapi::com::ITransportClient> client = fake;
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  TokarDaemon daemon(config, client);
  fake->connected_callback();
  EXPECT_EQ(received(), TOKARD_SYSTEMD ? "READY=1 " : "");
  fake->connected_callback();
  EXPECT_EQ(received(), "");
  ::close(manager);
  ::unlink(path.c_str());
}

}  // namespace
}  // namespace tokard::test
