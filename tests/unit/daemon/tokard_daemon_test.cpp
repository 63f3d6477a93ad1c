#include "daemon/tokard_daemon.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "support/broker.h"
#include "support/fake_transport.h"

namespace tokard::test {
namespace {

using std::chrono::milliseconds;

void noop_handler(int) {}

sighandler_t current_handler(int sig) {
  struct sigaction action {};
  sigaction(sig, nullptr, &action);
  return action.sa_handler;
}

class ADaemon : public testing::Test {
 protected:
  ~ADaemon() override {
    if (m_thread.joinable() && !stop_by_signal()) {
      // Joining would hang and the thread still uses the daemon: give up loudly.
      std::fputs("run() did not return after ten signals\n", stderr);
      std::abort();
    }
    *instance_cell() = nullptr;
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
  }

  void run_in_background() {
    m_thread = std::thread([this] {
      daemon.run();
      m_returned = true;
    });
  }

  bool returned_within(milliseconds limit) {
    return wait_until([this] { return m_returned.load(); }, limit);
  }

  // Signals until run() returns: a signal that lands between start and the
  // flag being set is overridden by design.
  bool stop_by_signal() {
    for (int attempt = 0; attempt < 10; ++attempt) {
      *instance_cell() = &daemon;
      on_signal(SIGTERM);
      if (returned_within(milliseconds(700))) {
        m_thread.join();
        return true;
      }
    }
    return false;
  }

  std::unique_ptr<ecu::lapi::config::Configuration> config =
      std::make_unique<ecu::lapi::config::Configuration>();
  std::shared_ptr<ecu::lapi::com::ITransportClient> client =
      std::make_shared<FakeTransportClient>();
  TokarDaemon daemon{config, client};

 private:
  std::thread m_thread;
  std::atomic<bool> m_returned{false};
};

TEST_F(ADaemon, KeepsRunningWhenTheSignalCameBeforeItsLoop) {
  *instance_cell() = &daemon;
  on_signal(SIGINT);
  run_in_background();
  EXPECT_FALSE(returned_within(milliseconds(1200)));
  EXPECT_TRUE(stop_by_signal());
}

TEST_F(ADaemon, SignalHandlerActsOnceOnTerminationSignalsAndIgnoresOthers) {
  signal(SIGINT, noop_handler);
  signal(SIGTERM, noop_handler);
  *instance_cell() = &daemon;

  on_signal(SIGUSR1);
  EXPECT_EQ(*instance_cell(), &daemon);
  EXPECT_EQ(current_handler(SIGINT), &noop_handler);
  EXPECT_EQ(current_handler(SIGTERM), &noop_handler);

  on_signal(SIGTERM);
  EXPECT_EQ(*instance_cell(), nullptr);
  EXPECT_EQ(current_handler(SIGINT), SIG_DFL);
  EXPECT_EQ(current_handler(SIGTERM), SIG_DFL);
}

}  // namespace
}  // namespace tokard::test
