// The client's session on a transport that hands each request to the test,
// which answers as tokard would: the line, the give-back, the fallback.
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>

#include "client/session.h"
#include "support/fake_transport.h"

namespace tokard::test {
namespace {

using namespace std::chrono_literals;
using client::AcquireResult;
using client::Session;
using protocol::Request;
using protocol::Response;

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

class ASession : public testing::Test {
 protected:
  void SetUp() override { session.attach(requests); }
  void answer(Response::Result result) {
    session.message(protocol::response_topic("me"), protocol::response_frame(result, "rt/E"));
  }
  std::future<AcquireResult> wait_for_token() {
    return std::async(std::launch::async, [this] {
      return session.wait_for_token("rt/E", Session::Clock::now() + 30s);
    });
  }

  std::shared_ptr<RequestQueue> requests = std::make_shared<RequestQueue>();
  Session session{"me", {2s, 20ms}};
};

TEST_F(ASession, GivesBackEveryGrantNobodyWaitsFor) {
  answer(Response::ACQUIRED);
  EXPECT_EQ(requests->next(), "request RELEASE rt/E") << "never asked for";
  auto acquire = std::async(std::launch::async,
                            [this] { return session.acquire("rt/E", client::Ledger::Kind::Keep); });
  EXPECT_EQ(requests->next(), "request ACQUIRE rt/E");
  session.interrupt();
  EXPECT_EQ(acquire.get(), AcquireResult::NoAnswer);
  answer(Response::ACQUIRED);
  EXPECT_EQ(requests->next(), "request RELEASE rt/E") << "its asker gave up";
  EXPECT_FALSE(session.holds("rt/E"));
}

TEST_F(ASession, KeepsItsPlaceInLineTakesThePushedGrantAndRenewsItAsAcquired) {
  auto waiting = wait_for_token();
  EXPECT_EQ(requests->next(), "wait ACQUIRE rt/E");
  answer(Response::BUSY);
  EXPECT_EQ(requests->next(), "wait ACQUIRE rt/E") << "repeated every refresh period";
  answer(Response::ACQUIRED);
  EXPECT_EQ(waiting.get(), AcquireResult::Acquired);
  EXPECT_TRUE(session.granted_at("rt/E"));
  session.refresh();
  EXPECT_EQ(requests->next(), "request ACQUIRE rt/E");
}

TEST_F(ASession, LeavesTheLineWhenInterruptedAndGivesBackAGrantPushedAfterThat) {
  auto waiting = wait_for_token();
  EXPECT_EQ(requests->next(), "wait ACQUIRE rt/E");
  answer(Response::BUSY);
  session.interrupt();
  EXPECT_EQ(waiting.get(), AcquireResult::Busy);
  EXPECT_EQ(session.acquire("rt/F", client::Ledger::Kind::Keep), AcquireResult::NoAnswer)
      << "interrupted for good";
  std::string left;
  while ((left = requests->next()) == "wait ACQUIRE rt/E") {
  }
  EXPECT_EQ(left, "wait RELEASE rt/E");
  answer(Response::ACQUIRED);
  EXPECT_EQ(requests->next(), "request RELEASE rt/E");
  EXPECT_FALSE(session.holds("rt/E"));
}

TEST_F(ASession, AsksOnTheRequestTopicWhereTokardDoesNotAnswerWaitRequests) {
  Session old_tokard{"me", {300ms, 20ms}};
  old_tokard.attach(requests);
  auto waiting = std::async(std::launch::async, [&] {
    return old_tokard.wait_for_token("rt/E", Session::Clock::now() + 30s);
  });
  for (const char* sent : {"wait ACQUIRE rt/E", "wait RELEASE rt/E", "request ACQUIRE rt/E"}) {
    EXPECT_EQ(requests->next(), sent);
  }
  old_tokard.message(protocol::response_topic("me"),
                     protocol::response_frame(Response::BUSY, "rt/E"));
  // Answered again: one more wait request, in case tokard was only away.
  for (const char* sent : {"wait ACQUIRE rt/E", "wait RELEASE rt/E", "request ACQUIRE rt/E"}) {
    EXPECT_EQ(requests->next(), sent);
  }
  old_tokard.message(protocol::response_topic("me"),
                     protocol::response_frame(Response::BUSY, "rt/E"));
  EXPECT_EQ(requests->next(), "request ACQUIRE rt/E") << "only one more";
  old_tokard.message(protocol::response_topic("me"),
                     protocol::response_frame(Response::ACQUIRED, "rt/E"));
  EXPECT_EQ(waiting.get(), AcquireResult::Acquired);
  EXPECT_TRUE(old_tokard.holds("rt/E"));
}

TEST_F(ASession, StopsAskingAnOldTokardAtItsDeadline) {
  Session old_tokard{"me", {100ms, 20ms}};
  old_tokard.attach(requests);
  auto waiting = std::async(std::launch::async, [&] {
    return old_tokard.wait_for_token("rt/E", Session::Clock::now() + 500ms);
  });
  for (int n = 0; n < 50 && waiting.wait_for(0s) != std::future_status::ready; ++n) {
    if (requests->next(50ms) == "request ACQUIRE rt/E") {
      old_tokard.message(protocol::response_topic("me"),
                         protocol::response_frame(Response::BUSY, "rt/E"));
    }
  }
  const bool ended = waiting.wait_for(5s) == std::future_status::ready;
  old_tokard.interrupt();
  ASSERT_TRUE(ended);
  EXPECT_EQ(waiting.get(), AcquireResult::Busy);
}

TEST(AnUnattachedSession, NeitherAsksNorReleases) {
  Session session{"me", {}};
  EXPECT_EQ(session.acquire("rt/E", client::Ledger::Kind::Keep), AcquireResult::NoAnswer);
  EXPECT_EQ(session.release("rt/E"), client::ClientError::NotConnected);
}

}  // namespace
}  // namespace tokard::test
