#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "integration/faults/harness.h"

namespace tokard::test {
namespace {

using namespace std::chrono_literals;

constexpr int kClients = 20;
constexpr int kCyclesPerClient = 125;  // an acquire and a release each: 5,000 requests
const std::array<std::string, 3> kEcuTopics = {"rt/ECU0", "rt/ECU1", "rt/ECU2"};
constexpr int kNobody = -1;

std::string client_name(int i) { return "load-" + std::to_string(i); }

void join(std::vector<std::thread>& workers) {
  for (auto& worker : workers) {
    worker.join();
  }
}

// Replays the daemon's own account, in the order its delivery thread wrote it:
// a grant to a client while another holds the token is a breach.
std::vector<std::string> grants_while_held(const std::string& log) {
  const std::string granted = "INFO tokard.reqhandler.acquire: Token acquired for '";
  const std::string released = "] Token explicitly released for client ";
  std::map<std::string, std::string> holder;  // ECU name -> client
  std::vector<std::string> breaches;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(granted, 0) == 0) {
      const auto quote = line.find('\'', granted.size());
      const std::string ecu = line.substr(granted.size(), quote - granted.size());
      const std::string client = line.substr(line.rfind(" by ") + 4);
      std::string& current = holder[ecu];
      if (!current.empty() && current != client) {
        breaches.push_back(ecu + " granted to " + client + " while " + current + " held it");
      }
      current = client;
    } else if (const auto at = line.find(released); at != std::string::npos) {
      const auto open = line.find('[');
      const std::string ecu = line.substr(open + 1, at - open - 1);
      holder[ecu].clear();
    }
  }
  return breaches;
}

TEST(UnderLoad, TwentyClientsAreNeverToldAcquiredForTheSameEcuAtOnceAndEveryAcquireIsAnswered) {
  Broker broker;
  Daemon tokard(broker.port(), "INFO");
  {
    App probe(broker.port(), "load-probe");
    ASSERT_EQ(probe.subscribe(response_topic("load-probe")), 1);
    ASSERT_TRUE(wait_until([&] { return probe.acquire("rt/PROBE", "", 200ms).has_value(); }, 15s))
        << tokard.tail();
  }

  // Each ECU's mark names the client that was told ACQUIRED and has not yet
  // sent its release. The mark is cleared before the release goes out, so a
  // correct daemon can only grant the next client after the clear.
  std::array<std::atomic<int>, kEcuTopics.size()> marks;
  for (auto& mark : marks) {
    mark = kNobody;
  }
  std::mutex report_mutex;
  std::vector<std::string> overlaps;
  std::atomic<int> unanswered{0}, wrong_topic{0}, granted{0}, busy{0}, other{0};
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};

  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (int i = 0; i < kClients; ++i) {
    workers.emplace_back([&, i] {
      const std::string name = client_name(i);
      App app(broker.port(), name);
      const bool subscribed = app.subscribe(response_topic(name)) == 1;
      ++ready;
      while (!go.load()) {
        std::this_thread::sleep_for(1ms);
      }
      for (int cycle = 0; subscribed && cycle < kCyclesPerClient; ++cycle) {
        const std::size_t e = static_cast<std::size_t>(cycle + i) % kEcuTopics.size();
        const std::string& topic = kEcuTopics[e];
        app.send(Request::ACQUIRE, topic, name);
        const auto raw = app.next(response_topic(name), 5s);
        const auto answer = raw ? decode_response(*raw) : std::nullopt;
        if (!answer) {
          ++unanswered;
        } else if (answer->request_topic() != topic) {
          ++wrong_topic;
        } else if (answer->result() == Response::ACQUIRED) {
          ++granted;
          int expected = kNobody;
          if (marks[e].compare_exchange_strong(expected, i)) {
            std::this_thread::sleep_for(100us);  // hold it a moment
            marks[e] = kNobody;
          } else {
            std::lock_guard<std::mutex> lock(report_mutex);
            overlaps.push_back(topic + ": " + name + " told ACQUIRED while " +
                               client_name(expected) + " held it");
          }
        } else if (answer->result() == Response::BUSY) {
          ++busy;
        } else {
          ++other;
        }
        // Also from clients that were refused: such a release must change nothing.
        app.release(topic);
      }
      if (!subscribed) {
        unanswered += kCyclesPerClient;
      }
    });
  }
  const bool all_ready = wait_until([&] { return ready.load() == kClients; }, 20s);
  const auto go_time = std::chrono::steady_clock::now();
  go = true;
  join(workers);
  const auto load_ms = ms_since(go_time);
  ASSERT_TRUE(all_ready);

  std::cout << "[          ] " << kClients * kCyclesPerClient * 2 << " requests from " << kClients
            << " clients over " << kEcuTopics.size() << " ECUs in " << load_ms << " ms: "
            << granted << " ACQUIRED, " << busy << " BUSY, " << unanswered << " unanswered ("
            << ms_since(start) << " ms with connecting)\n";
  EXPECT_TRUE(overlaps.empty()) << overlaps.size() << " overlaps, first: " << overlaps.front();
  EXPECT_EQ(unanswered.load(), 0) << tokard.tail();
  EXPECT_EQ(wrong_topic.load(), 0);
  EXPECT_EQ(other.load(), 0);
  EXPECT_EQ(granted + busy, kClients * kCyclesPerClient);
  EXPECT_GT(granted.load(), 0);
  EXPECT_GT(busy.load(), 0) << "the clients never competed; the test proves nothing";

  ASSERT_TRUE(tokard.running()) << tokard.err();
  const auto breaches = grants_while_held(tokard.log());
  EXPECT_TRUE(breaches.empty()) << breaches.size() << " in the daemon's log, first: "
                                << breaches.front();
}

TEST(UnderLoad, SigtermStopsTheDaemonWithStatusZeroWithinASecondAndNothingLoggedAfter) {
  Broker broker;
  Daemon tokard(broker.port(), "DEBUG");
  {
    App probe(broker.port(), "stop-probe");
    ASSERT_EQ(probe.subscribe(response_topic("stop-probe")), 1);
    ASSERT_TRUE(wait_until([&] { return probe.acquire("rt/PROBE", "", 200ms).has_value(); }, 15s))
        << tokard.tail();
  }

  std::atomic<bool> stop{false};
  std::atomic<long> answers{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < kClients; ++i) {
    workers.emplace_back([&, i] {
      const std::string name = "busy-" + std::to_string(i);
      App app(broker.port(), name);
      app.subscribe(response_topic(name));
      for (int k = 0; !stop.load() && k < 1'000'000; ++k) {
        if (app.acquire(kEcuTopics[static_cast<std::size_t>(k + i) % kEcuTopics.size()], "", 500ms)) {
          ++answers;
        }
      }
    });
  }
  // Unanswered requests on top, so that a backlog waits at stop time.
  workers.emplace_back([&] {
    App flood(broker.port(), "flood");
    const Bytes frame = request_frame(Request::ACQUIRE, "rt/ECU0", "flood");
    for (int k = 0; !stop.load() && k < 200; ++k) {
      for (int j = 0; j < 100; ++j) {
        flood.publish(kRequestTopic, frame, 0);
      }
      std::this_thread::sleep_for(5ms);
    }
  });

  if (!wait_until([&] { return answers.load() >= 2000; }, 20s)) {
    stop = true;
    join(workers);
    FAIL() << "the load never got going\n" << tokard.tail();
  }

  const auto sent = std::chrono::steady_clock::now();
  const bool signalled = tokard.send(SIGTERM);
  auto status = tokard.wait_exit(1000ms);
  const auto stop_ms = ms_since(sent);
  const bool within_a_second = status.has_value();
  if (!status) {
    status = tokard.wait_exit(5000ms);
  }
  stop = true;
  join(workers);
  std::cout << "[          ] " << answers << " answers under load; stopped " << stop_ms
            << " ms after SIGTERM\n";

  ASSERT_TRUE(signalled);
  ASSERT_TRUE(status.has_value()) << "still running 6 s after SIGTERM\n" << tokard.tail();
  EXPECT_TRUE(within_a_second) << "took " << stop_ms << " ms";
  EXPECT_EQ(exit_status(status), 0) << "stderr: " << tokard.err();
  const std::string last = "DEBUG tokard.daemon: ... stopped!\n";
  const std::string log = tokard.log();
  EXPECT_EQ(tokard.count_in_log("... stopped!"), 1u);
  ASSERT_GE(log.size(), last.size());
  EXPECT_EQ(log.substr(log.size() - last.size()), last) << "logged after the end:\n"
                                                         << tokard.tail(1000);
  EXPECT_EQ(tokard.err(), "");
}

}  // namespace
}  // namespace tokard::test
