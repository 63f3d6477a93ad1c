// The client's ledger on a clock the test moves: what each answer means, and
// from when a held token's lease is counted.
#include <gtest/gtest.h>

#include <algorithm>

#include "client/ledger.h"
#include "com/protocol.h"

namespace tokard::test {
namespace {

using namespace std::chrono_literals;
using client::AcquireResult;
using client::Ledger;
using Kind = Ledger::Kind;
using Step = Ledger::Step;

class ALedger : public testing::Test {
 protected:
  Ledger::Time now = Ledger::Clock::now();
  Ledger ledger{[this] { return now; }};
};

struct Case {
  const char* story;
  void (*before)(Ledger&);  // what the client did before the answer
  AcquireResult answer;
  Step step;
  bool held;
};

class AnAnswer : public ALedger, public testing::WithParamInterface<Case> {};

void keep(Ledger& l) { l.asked("rt/E", Kind::Keep); }
void hold(Ledger& l) {
  const auto ticket = l.asked("rt/E", Kind::Keep);
  ASSERT_EQ(l.answered("rt/E", AcquireResult::Acquired), Step::None);
  l.settled(ticket);
}
void hold_and_release(Ledger& l) {
  hold(l);
  l.released("rt/E");
}
void join(Ledger& l) { l.joined("rt/E"); }
void join_and_leave(Ledger& l) {
  l.joined("rt/E");
  l.left("rt/E");
}

const Case kCases[] = {
    {"a grant nobody asked for is given back", [](Ledger&) {}, AcquireResult::Acquired,
     Step::GiveBack, false},
    {"a grant to an asker is held", keep, AcquireResult::Acquired, Step::None, true},
    {"a busy answer to an asker is only noted", keep, AcquireResult::Busy, Step::None, false},
    {"a grant to an asker that gave up is given back",
     [](Ledger& l) { l.settled(l.asked("rt/E", Kind::Keep)); }, AcquireResult::Acquired,
     Step::GiveBack, false},
    {"a grant asked for once is neither held nor given back",
     [](Ledger& l) { l.asked("rt/E", Kind::Once); }, AcquireResult::Acquired, Step::None, false},
    {"a renewal granted keeps the token", hold, AcquireResult::Acquired, Step::None, true},
    {"a renewal refused loses it", hold, AcquireResult::Busy, Step::Lost, false},
    {"a renewal finding no ECU loses it", hold, AcquireResult::NoEcu, Step::Lost, false},
    {"a renewal granted after the release is given back", hold_and_release, AcquireResult::Acquired,
     Step::GiveBack, false},
    {"a grant pushed to a client in line is held", join, AcquireResult::Acquired, Step::None, true},
    {"a grant pushed after the client left the line is given back", join_and_leave,
     AcquireResult::Acquired, Step::GiveBack, false},
};

TEST_P(AnAnswer, MeansWhatTheClientDidBeforeIt) {
  GetParam().before(ledger);
  EXPECT_EQ(ledger.answered("rt/E", GetParam().answer), GetParam().step);
  EXPECT_EQ(ledger.holds("rt/E"), GetParam().held);
  EXPECT_FALSE(ledger.holds("rt/OTHER"));
}
INSTANTIATE_TEST_SUITE_P(Stories, AnAnswer, testing::ValuesIn(kCases), [](const auto& info) {
  std::string name = info.param.story;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
});

TEST_F(ALedger, CountsALeaseFromTheSendingOfTheRequestTokardLastGranted) {
  const auto ticket = ledger.asked("rt/E", Kind::Keep);
  const auto asked = now;
  now += 40ms;
  EXPECT_FALSE(ledger.answer_to(ticket));
  EXPECT_EQ(ledger.answered("rt/E", AcquireResult::Acquired), Step::None);
  EXPECT_EQ(ledger.answer_to(ticket), AcquireResult::Acquired);
  ledger.settled(ticket);
  EXPECT_EQ(ledger.granted_at("rt/E"), asked);
  now += 3s;
  const auto renewed = now;
  ledger.asked("rt/E", Kind::Renew);
  now += 3s;
  ledger.asked("rt/E", Kind::Renew);  // not answered yet
  now += 40ms;
  EXPECT_EQ(ledger.answered("rt/E", AcquireResult::Acquired), Step::None);
  EXPECT_EQ(ledger.granted_at("rt/E"), renewed);
  now = renewed + protocol::kTokenTimeout;
  EXPECT_TRUE(ledger.expired().empty());
  now += 1ms;
  EXPECT_EQ(ledger.expired(), std::vector<std::string>{"rt/E"});
  EXPECT_FALSE(ledger.granted_at("rt/E"));
}

TEST_F(ALedger, CreditsNoGrantToARequestWhoseAnswerWasLost) {
  ledger.asked("rt/E", Kind::Renew);
  now += protocol::kTokenTimeout + 1ms;
  const auto ticket = ledger.asked("rt/E", Kind::Keep);
  EXPECT_EQ(ledger.answered("rt/E", AcquireResult::Acquired), Step::None);
  ledger.settled(ticket);
  EXPECT_EQ(ledger.granted_at("rt/E"), now);
}

TEST_F(ALedger, CountsAPushedGrantFromTheLastWaitRequestAnsweredBeforeIt) {
  ledger.joined("rt/E");
  const auto joined = now;
  ledger.settled(ledger.asked("rt/E", Kind::Line));
  ASSERT_EQ(ledger.answered("rt/E", AcquireResult::Busy), Step::None);
  now += 3s;
  const auto repeated = now;
  ledger.settled(ledger.asked("rt/E", Kind::Line));
  now += 1s;
  // The push overtook the answer to the repeat: only the join is known to
  // have reached tokard before it.
  ASSERT_EQ(ledger.answered("rt/E", AcquireResult::Acquired), Step::None);
  EXPECT_EQ(ledger.granted_at("rt/E"), joined);
  EXPECT_FALSE(ledger.in_line("rt/E"));
  ASSERT_EQ(ledger.answered("rt/E", AcquireResult::Acquired), Step::None);
  EXPECT_EQ(ledger.granted_at("rt/E"), repeated) << "tokard renewed it on the repeat";
}

}  // namespace
}  // namespace tokard::test
