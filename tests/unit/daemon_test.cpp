// The daemon's signal handler.
#include "daemon/tokard_daemon.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <thread>

#include "support/broker.h"
#include "support/fake_transport.h"
#include "support/log_capture.h"

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

}  // namespace
}  // namespace tokard::test
