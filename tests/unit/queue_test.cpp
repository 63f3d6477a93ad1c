// The line of waiting clients on a clock the test moves: joins in order,
// hand-overs on release and at the lease's end, silent waiters dropped, and
// the status changes a watcher is told of. Leaving the line and signal
// groups are tested on the broker (wait_line_test.cpp).
#include <gtest/gtest.h>

#include <sstream>

#include "queue/wait_lines.h"
#include "support/broker.h"
#include "support/fake_transport.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

Ecu::Clock::time_point g_now{5h};

class ClockedEcu : public Ecu {
 public:
  using Ecu::Ecu;

 protected:
  Clock::time_point now() const override { return g_now; }
};

// "holder:waiters " at each settle after a change.
struct Watcher : EcuListener {
  void topic_added(const Ecu&, const std::string&) override {}
  void token_changed(const Ecu& ecu) override { changed = &ecu; }
  void settle() override {
    if (changed != nullptr) {
      seen += changed->holder() + ":";
      for (const auto& waiter : changed->waiters()) {
        seen += waiter;
      }
      seen += " ";
    }
    changed = nullptr;
  }
  const Ecu* changed = nullptr;
  std::string seen;
};

// Steps: "jA+" A's wait request, answered acquired (+) or busy (-); "aA-" an
// acquire; "rA" a release; "t9000" 9 s pass and the watch runs; "T9000" the
// same without the watch.
struct Case {
  const char* name;
  const char* steps;
  const char* statuses;  // "holder:waiters" at each change, blank-separated
  const char* pushed;    // the clients sent a grant unasked, in order
};

const std::vector<Case> kTable = {
    {"QueuesInOrderAndHandsOverOnRelease", "jA+ jB- jC- jB- jA+ rA rB", "A: A:B A:BC B:C C:", "BC"},
    {"HandsOverWhenTheLeaseRunsOut", "jA+ jB- t9000 jB- t1000 t1", "A: A:B B:", "B"},
    {"DropsASilentWaiterAndSkipsIt", "aA+ jB- jC- t6000 aA+ jC- t4001 rA",
     "A: A:B A:BC A:C C:", "C"},
    {"AcquiresWaitBehindTheLineAfterTheLease", "jA+ jB- aC- T9000 jB- T1001 aC- aB+",
     "A: A:B B:", "B"},
};

class AWaitLine : public testing::TestWithParam<Case> {};

TEST_P(AWaitLine, GrantsInOrder) {
  auto fake = std::make_shared<FakeTransportClient>();
  WaitLines lines(fake, [] { return g_now; });
  auto ecu = std::make_shared<ClockedEcu>("E1");
  auto watcher = std::make_shared<Watcher>();
  ecu->set_listener(watcher);
  ecu->set_line(&lines);
  std::istringstream steps(GetParam().steps);
  for (std::string s; steps >> s;) {
    const std::string who = s.substr(1, 1);
    if (s[0] == 't' || s[0] == 'T') {
      g_now += std::chrono::milliseconds(std::stoi(s.substr(1)));
    } else if (s[0] == 'r') {
      (void)ecu->release_token(who);
    } else {
      const bool got = s[0] == 'j' ? lines.join(ecu, who, "rt/E1") == protocol::Response::ACQUIRED
                                   : !lines.refuses(*ecu, who) && ecu->acquire_token(who);
      EXPECT_EQ(got, s[2] == '+') << s;
    }
    if (s[0] == 't') {
      lines.run_due();
    } else if (s[0] != 'T') {
      lines.changed(*ecu);
    }
    ecu->settle();
  }
  EXPECT_EQ(watcher->seen, std::string(GetParam().statuses) + " ");
  std::string pushed;
  for (const auto& p : fake->published) {
    EXPECT_EQ(p.topic, "app/" + p.topic.substr(4, 1) + "/pgn/response");
    EXPECT_EQ(protocol::read<protocol::Response>(p.msg).value.result(), 3);
    pushed += p.topic.substr(4, 1);
  }
  EXPECT_EQ(pushed, GetParam().pushed);
}

INSTANTIATE_TEST_SUITE_P(Table, AWaitLine, testing::ValuesIn(kTable),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(AFullWaitLine, RefusesTheSixtyFifthWithAWarningAndForgetsSilentWaiters) {
  WaitLines lines(std::make_shared<FakeTransportClient>(), [] { return g_now; });
  auto ecu = std::make_shared<ClockedEcu>("E1");
  ecu->set_line(&lines);
  LogCapture log;
  for (std::size_t i = 0; i <= protocol::kMaxWaiters + 1; ++i) {
    (void)lines.join(ecu, "c" + std::to_string(i), "rt/E1");
  }
  EXPECT_EQ(ecu->waiters().size(), protocol::kMaxWaiters);
  EXPECT_EQ(log.matching("WARNING"),
            Lines{"WARNING tokard.queue: [E1] Line full with 64 clients, c65 not queued"});
  (void)ecu->acquire_token("c0");  // renewed: the lease outlives the waiters
  g_now += 10001ms;
  lines.run_due();
  EXPECT_TRUE(ecu->waiters().empty());
  EXPECT_EQ(ecu->holder(), "c0");
}

}  // namespace
}  // namespace tokard::test
