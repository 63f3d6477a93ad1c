// The token decision table of an ECU record and its signal monitoring, with
// the byte-exact lines of "tokard.ecu"; and the ECU's line of waiting clients.
#include "ecu/ecu.h"

#include <gtest/gtest.h>

#include <sstream>

#include "com/protocol.h"
#include "lapi/rt/signal_adapter.h"
#include "queue/wait_lines.h"
#include "support/broker.h"
#include "support/fake_transport.h"
#include "support/log_capture.h"

namespace tokard::test {
namespace {

Ecu::Clock::time_point g_now{5h};

// An Ecu, and its line, on a clock that moves only when told to.
class ClockedEcu : public Ecu {
 public:
  using Ecu::Ecu;

 protected:
  Clock::time_point now() const override { return g_now; }
};

// Steps: "aA" A's acquire, granted, "aA-" refused; "rA" and "rA-" a release;
// "w1" a nanosecond passes; "g7@rt/E1" a signal group on rt/E1 whose second
// signal has status 7.
struct Case {
  const char* name;
  const char* steps;
  std::string holder;
  Lines lines;  // of "tokard.ecu" at DEBUG, "LEVEL:" standing for "LEVEL tokard.ecu: [E1]"
};

const std::string kBefore = "DEBUG:  (before acquire) m_request_active: ";

const std::vector<Case> kTable = {
    {"OthersWaitMoreThanTenSeconds",
     "aA w10000000000 aB- w1 aB aA-",
     "B",
     {kBefore + "FALSE m_token_taken_by_client: ", "DEBUG: no client has token, allow A",
      kBefore + "FALSE m_token_taken_by_client: A", "INFO: Active client: A",
      kBefore + "FALSE m_token_taken_by_client: A", "DEBUG: A had token to long, allow B",
      kBefore + "FALSE m_token_taken_by_client: B", "INFO: Active client: B"}},
    {"HolderRefreshesEvenAfterTheTimeOut",
     "aA w60000000000 aA w10000000000 aB-",
     "A",
     {"DEBUG: no client has token, allow A", "INFO: client A token refreshed",
      "INFO: Active client: A"}},
    {"OnlyTheHolderReleases",
     "rX aA rB- rA aC",
     "C",
     {"DEBUG: no client has token, allow A", "DEBUG: Token taken by A release from B prohibited",
      "INFO: Token explicitly released for client A", "DEBUG: no client has token, allow C"}},
    {"ValidGroupRefusesEveryoneAndKeepsTheHolder",
     "aA g0@rttx/E1 w60000000000 aA- aB-",
     "A",
     {kBefore + "FALSE m_token_taken_by_client: ", "DEBUG: no client has token, allow A",
      "DEBUG: SignalGroup G is valid: YES", "DEBUG: S - 05 1a 0 ff  - Status: 0",
      "DEBUG: T - 0a b c d  - Status: 0", "INFO: Accept requests: NO 'rttx/E1'",
      kBefore + "TRUE m_token_taken_by_client: A", kBefore + "TRUE m_token_taken_by_client: A"}},
    {"GroupNotValidFreesTheToken",
     "aA g0@rt/E1 g7@bus/E1 aB",
     "B",
     {"DEBUG: no client has token, allow A", "DEBUG: SignalGroup G is valid: YES",
      "DEBUG: S - 05 1a 0 ff  - Status: 0", "DEBUG: T - 0a b c d  - Status: 0",
      "INFO: Accept requests: NO 'rt/E1'", "DEBUG: SignalGroup G is valid: NO",
      "DEBUG: S - 05 1a 0 ff  - Status: 0", "DEBUG: T - 0a b c d  - Status: 7",
      "INFO: Accept requests: YES 'bus/E1'", "DEBUG: no client has token, allow B"}},
    // rttx/x/E1 is judged by rt/x/E1, which has no definition.
    {"FrameThatDoesNotUnpackChangesNothing",
     "aA g7@rttx/x/E1 g7@rt/none",
     "A",
     {"DEBUG: no client has token, allow A", "ERROR: unable to deserialize message for rttx/x/E1",
      "ERROR: unable to deserialize message for rt/none"}},
};

class AnEcu : public testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    ecu::lapi::rt::SignalAdapter::instance().load(
        write_file(scratch("ecu_signals.json"), R"({"groups": [
        {"topic": "rt/E1", "name": "G", "signals": ["S", "T"]},
        {"topic": "bus/E1", "name": "G", "signals": ["S", "T"]}]})"));
  }
};

TEST_P(AnEcu, DecidesAndLogs) {
  ClockedEcu ecu("E1");
  LogCapture log;
  std::istringstream steps(GetParam().steps);
  for (std::string s; steps >> s;) {
    const bool granted = s.back() != '-';
    const std::string who = s.substr(1, s.size() - (granted ? 1 : 2));
    if (s[0] == 'a') {
      EXPECT_EQ(ecu.acquire_token(who), granted) << s;
    } else if (s[0] == 'r') {
      EXPECT_EQ(ecu.release_token(who), granted) << s;
    } else if (s[0] == 'w') {
      g_now += std::chrono::nanoseconds(std::stoll(who));
    } else {
      const auto at = who.find('@');
      const auto status = static_cast<std::uint32_t>(std::stoul(who.substr(0, at)));
      ecu.message(who.substr(at + 1),
                  protocol::group_frame("G", {{"S", std::string("\x05\x1a\x00\xff", 4), 0},
                                              {"T", "\x0a\x0b\x0c\x0d\x0e", status}}));
    }
  }
  EXPECT_EQ(ecu.holder(), GetParam().holder);
  Lines expected;
  for (const auto& line : GetParam().lines) {
    const auto colon = line.find(':');
    expected.push_back(line.substr(0, colon) + " tokard.ecu: [E1]" + line.substr(colon + 1));
  }
  const bool all = !matching(expected, "(before acquire)").empty();  // left out of most cases
  Lines logged;
  for (const auto& line : log.matching("tokard.ecu:")) {
    if (all || line.find("(before acquire)") == std::string::npos) {
      logged.push_back(line);
    }
  }
  EXPECT_EQ(logged, expected);
}

INSTANTIATE_TEST_SUITE_P(Table, AnEcu, testing::ValuesIn(kTable),
                         [](const auto& info) { return std::string(info.param.name); });

// The line of waiting clients: joins in order, hand-overs on release and at
// the lease's end, silent waiters dropped, and the status changes a watcher
// is told of. Leaving the line and signal groups are tested on the broker.
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
struct LineCase {
  const char* name;
  const char* steps;
  const char* statuses;  // "holder:waiters" at each change, blank-separated
  const char* pushed;    // the clients sent a grant unasked, in order
};

const std::vector<LineCase> kLines = {
    {"QueuesInOrderAndHandsOverOnRelease", "jA+ jB- jC- jB- jA+ rA rB", "A: A:B A:BC B:C C:", "BC"},
    {"HandsOverWhenTheLeaseRunsOut", "jA+ jB- t9000 jB- t1000 t1", "A: A:B B:", "B"},
    {"DropsASilentWaiterAndSkipsIt", "aA+ jB- jC- t6000 aA+ jC- t4001 rA",
     "A: A:B A:BC A:C C:", "C"},
    {"AcquiresWaitBehindTheLineAfterTheLease", "jA+ jB- aC- T9000 jB- T1001 aC- aB+",
     "A: A:B B:", "B"},
};

class AWaitLine : public testing::TestWithParam<LineCase> {};

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

INSTANTIATE_TEST_SUITE_P(Table, AWaitLine, testing::ValuesIn(kLines),
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
