// The client's ledger on a clock the test moves: what each answer means, and
// from when a held token's lease is counted. The client's session on a
// transport that hands each request to the test, which answers as tokard
// would: the line, the give-back, the fallback.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>

#include "client/ledger.h"
#include "client/session.h"
#include "com/protocol.h"
#include "support/fake_transport.h"

namespace tokard::test {
namespace {

using namespace std::chrono_literals;
using client::AcquireResult;
using client::Ledger;
using client::Session;
using protocol::Request;
using protocol::Response;
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
  const auto other = ledger.asked("rt/F", Kind::Keep);
  const auto asked = now;
  now += 40ms;
  EXPECT_FALSE(ledger.answer_to(ticket));
  EXPECT_EQ(ledger.answered("rt/E", AcquireResult::Acquired), Step::None);
  EXPECT_EQ(ledger.answer_to(ticket), AcquireResult::Acquired);
  EXPECT_FALSE(ledger.answer_to(other)) << "an answer is for its own topic only";
  ledger.settled(other);
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

// Requests as "wait ACQUIRE rt/E" or "request RELEASE rt/E", in the order sent.
class RequestQueue : public FakeTransportClient {
 public:
  bool publish(const std::string& topic, const Message& msg) override {
    const auto body = protocol::read<Request>(msg).value;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sent.push_back((topic == protocol::kWaitTopic ? "wait " : "request ") +
                     Request::Action_Name(body.action()) + " " + body.request_topic());
    m_changed.notify_all();
    return true;
  }
  std::string next(std::chrono::milliseconds limit = 5s) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, limit, [this] { return !m_sent.empty(); })) {
      return "nothing";
    }
    const std::string first = m_sent.front();
    m_sent.pop_front();
    return first;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<std::string> m_sent;
};

void answer(Session& session, Response::Result result) {
  session.message(protocol::response_topic("me"), protocol::response_frame(result, "rt/E"));
}

std::future<AcquireResult> wait_for_token(Session& session, std::chrono::milliseconds limit = 30s) {
  return std::async(std::launch::async, [&session, limit] {
    return session.wait_for_token("rt/E", Session::Clock::now() + limit);
  });
}

class ASession : public testing::Test {
 protected:
  void SetUp() override { session.attach(requests); }

  std::shared_ptr<RequestQueue> requests = std::make_shared<RequestQueue>();
  Session session{"me", {2s, 20ms}};
};

TEST_F(ASession, GivesBackEveryGrantNobodyWaitsFor) {
  answer(session, Response::ACQUIRED);
  EXPECT_EQ(requests->next(), "request RELEASE rt/E") << "never asked for";
  auto acquire =
      std::async(std::launch::async, [this] { return session.acquire("rt/E", Kind::Keep); });
  EXPECT_EQ(requests->next(), "request ACQUIRE rt/E");
  session.interrupt();
  EXPECT_EQ(acquire.get(), AcquireResult::NoAnswer);
  answer(session, Response::ACQUIRED);
  EXPECT_EQ(requests->next(), "request RELEASE rt/E") << "its asker gave up";
  EXPECT_FALSE(session.holds("rt/E"));
}

TEST_F(ASession, KeepsItsPlaceInLineTakesThePushedGrantAndRenewsItAsAcquired) {
  auto waiting = wait_for_token(session);
  EXPECT_EQ(requests->next(), "wait ACQUIRE rt/E");
  answer(session, Response::BUSY);
  EXPECT_EQ(requests->next(), "wait ACQUIRE rt/E") << "repeated every refresh period";
  answer(session, Response::ACQUIRED);
  EXPECT_EQ(waiting.get(), AcquireResult::Acquired);
  EXPECT_TRUE(session.granted_at("rt/E"));
  session.refresh();
  EXPECT_EQ(requests->next(), "request ACQUIRE rt/E");
}

TEST_F(ASession, LeavesTheLineWhenInterruptedAndGivesBackAGrantPushedAfterThat) {
  auto waiting = wait_for_token(session);
  EXPECT_EQ(requests->next(), "wait ACQUIRE rt/E");
  answer(session, Response::BUSY);
  session.interrupt();
  EXPECT_EQ(waiting.get(), AcquireResult::Busy);
  EXPECT_EQ(session.acquire("rt/F", Kind::Keep), AcquireResult::NoAnswer) << "interrupted for good";
  std::string left;
  while ((left = requests->next()) == "wait ACQUIRE rt/E") {
  }
  EXPECT_EQ(left, "wait RELEASE rt/E");
  answer(session, Response::ACQUIRED);
  EXPECT_EQ(requests->next(), "request RELEASE rt/E");
  EXPECT_FALSE(session.holds("rt/E"));
}

TEST_F(ASession, AsksOnTheRequestTopicWhereTokardDoesNotAnswerWaitRequests) {
  Session old_tokard{"me", {300ms, 20ms}};
  old_tokard.attach(requests);
  auto waiting = wait_for_token(old_tokard);
  // Once answered, one more wait request, in case tokard was only away.
  for (int round = 0; round < 2; ++round) {
    for (const char* sent : {"wait ACQUIRE rt/E", "wait RELEASE rt/E", "request ACQUIRE rt/E"}) {
      EXPECT_EQ(requests->next(), sent) << round;
    }
    answer(old_tokard, Response::BUSY);
  }
  EXPECT_EQ(requests->next(), "request ACQUIRE rt/E") << "only one more";
  answer(old_tokard, Response::ACQUIRED);
  EXPECT_EQ(waiting.get(), AcquireResult::Acquired);
  EXPECT_TRUE(old_tokard.holds("rt/E"));
}

TEST_F(ASession, StopsAskingAnOldTokardAtItsDeadline) {
  Session old_tokard{"me", {1s, 20ms}};
  old_tokard.attach(requests);
  auto waiting = wait_for_token(old_tokard, 2500ms);
  // Only the first request is answered: a later silence says nothing new.
  bool answered = false;
  for (int n = 0; n < 100 && waiting.wait_for(0s) != std::future_status::ready; ++n) {
    if (requests->next(50ms) == "request ACQUIRE rt/E" && !answered) {
      answer(old_tokard, Response::BUSY);
      answered = true;
    }
  }
  const bool ended = waiting.wait_for(5s) == std::future_status::ready;
  old_tokard.interrupt();
  ASSERT_TRUE(ended);
  EXPECT_EQ(waiting.get(), AcquireResult::Busy);
}

TEST(AnUnattachedSession, NeitherAsksNorReleases) {
  Session session{"me", {}};
  EXPECT_EQ(session.acquire("rt/E", Kind::Keep), AcquireResult::NoAnswer);
  EXPECT_EQ(session.release("rt/E"), client::ClientError::NotConnected);
}

}  // namespace
}  // namespace tokard::test
