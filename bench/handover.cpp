// The line of waiting clients, measured against a running mosquitto and
// tokard (bench/run.sh starts both):
//  1. hand-over: a holder releases, the next in line gets its pushed grant;
//     release sent to ACQUIRED received, p50/p99/max over N hand-overs;
//  2. the requests a waiter sends in S seconds of waiting with the client
//     library's wait_for_token, counted on the broker;
//  3. the renewal round trip of a holder whose ECU has 64 clients in line
//     beside one whose ECU has none, alternating rounds, median ratio.
//
//  4. with -m N -P PID: tokard's resident memory with N ECUs held, with a
//     client in line for each, and after those waiters went silent.
//
//   handover [-h host] [-p port] [-n hand-overs] [-w wait seconds] [-r renewals]
//            [-m ECUs -P tokard-pid]
#include <mosquitto.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "com/protocol.h"
#include "tokard/token_client.h"

namespace {

namespace protocol = tokard::protocol;
using protocol::Request;
using protocol::Response;
using Clock = std::chrono::steady_clock;
using std::chrono::duration;

// One broker connection that keeps what arrives per topic.
class Conn {
 public:
  Conn(const std::string& host, int port, const std::string& id) : m_id(id) {
    m_mosq = mosquitto_new(id.c_str(), true, this);
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_message_callback_set(m_mosq, [](mosquitto*, void* self, const mosquitto_message* m) {
      auto* conn = static_cast<Conn*>(self);
      const auto* bytes = static_cast<const std::uint8_t*>(m->payload);
      std::lock_guard<std::mutex> lock(conn->m_mutex);
      conn->m_inbox[m->topic].emplace_back(bytes, bytes + m->payloadlen);
      conn->m_arrived.notify_all();
    });
    mosquitto_subscribe_callback_set(m_mosq, [](mosquitto*, void* self, int, int, const int*) {
      auto* conn = static_cast<Conn*>(self);
      std::lock_guard<std::mutex> lock(conn->m_mutex);
      ++conn->m_subacks;
      conn->m_arrived.notify_all();
    });
    mosquitto_connect(m_mosq, host.c_str(), port, 60);
    mosquitto_loop_start(m_mosq);
  }
  ~Conn() {
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, false);
    mosquitto_destroy(m_mosq);
  }
  bool subscribe(const std::string& filter) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const int before = m_subacks;
    mosquitto_subscribe(m_mosq, nullptr, filter.c_str(), 1);
    return m_arrived.wait_for(lock, std::chrono::seconds(5), [&] { return m_subacks > before; });
  }
  void send(const char* topic, Request::Action action, const std::string& rt,
            const std::string& client) {
    const auto frame = protocol::request_frame(action, rt, client).payload;
    mosquitto_publish(m_mosq, nullptr, topic, static_cast<int>(frame.size()), frame.data(), 1,
                      false);
  }
  // The result of the next answer on `topic`, 0 after 5 s without one.
  int answer(const std::string& topic) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_arrived.wait_for(lock, std::chrono::seconds(5),
                            [&] { return !m_inbox[topic].empty(); })) {
      return 0;
    }
    protocol::Message msg;
    msg.payload = std::move(m_inbox[topic].front());
    m_inbox[topic].pop_front();
    return protocol::read<Response>(msg).value.result();
  }
  // Requests kept for `topic` that name `client`.
  std::size_t sent_by(const std::string& topic, const std::string& client) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t count = 0;
    for (const auto& payload : m_inbox[topic]) {
      protocol::Message msg;
      msg.payload = payload;
      const auto request = protocol::read<Request>(msg);
      count += request.ok && request.value.client_name() == client ? 1 : 0;
    }
    return count;
  }
  const std::string& id() const { return m_id; }

 private:
  std::string m_id;
  mosquitto* m_mosq = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_arrived;
  std::map<std::string, std::deque<std::vector<std::uint8_t>>> m_inbox;
  int m_subacks = 0;
};

double us(Clock::duration d) { return duration<double, std::micro>(d).count(); }

double at(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[std::min(v.size() - 1, static_cast<std::size_t>(q * v.size()))];
}

bool handovers(const std::string& host, int port, int count) {
  const std::string prefix = "ho" + std::to_string(getpid()) + "-";
  Conn a(host, port, prefix + "a"), b(host, port, prefix + "b");
  Conn* holder = &a;
  Conn* waiter = &b;
  for (Conn* c : {&a, &b}) {
    c->subscribe(protocol::response_topic(c->id()));
  }
  const std::string rt = "rt/HANDOVER" + std::to_string(getpid());
  a.send(protocol::kRequestTopic, Request::ACQUIRE, rt, a.id());
  const int first = a.answer(protocol::response_topic(a.id()));
  b.send(protocol::kWaitTopic, Request::ACQUIRE, rt, b.id());
  if (first != Response::ACQUIRED || b.answer(protocol::response_topic(b.id())) != Response::BUSY) {
    std::fprintf(stderr, "handover: no line formed on %s\n", rt.c_str());
    return false;
  }
  std::vector<double> times;
  for (int i = 0; i < count; ++i) {
    const auto sent = Clock::now();
    holder->send(protocol::kRequestTopic, Request::RELEASE, rt, holder->id());
    if (waiter->answer(protocol::response_topic(waiter->id())) != Response::ACQUIRED) {
      std::fprintf(stderr, "handover: no grant pushed at hand-over %d\n", i);
      return false;
    }
    times.push_back(us(Clock::now() - sent));
    holder->send(protocol::kWaitTopic, Request::ACQUIRE, rt, holder->id());
    if (holder->answer(protocol::response_topic(holder->id())) != Response::BUSY) {
      std::fprintf(stderr, "handover: the old holder did not get in line\n");
      return false;
    }
    std::swap(holder, waiter);
  }
  std::printf(
      "handover: %d hand-overs, release sent to grant received: p50 %.0f us, p99 %.0f us,"
      " max %.0f us\n",
      count, at(times, 0.5), at(times, 0.99), at(times, 1.0));
  return true;
}

bool waiting(const std::string& host, int port, int seconds) {
  const std::string name = "waiter" + std::to_string(getpid());
  Conn holder(host, port, name + "-holder"), counter(host, port, name + "-counter");
  counter.subscribe(protocol::kWaitTopic);
  counter.subscribe(protocol::kRequestTopic);
  holder.subscribe(protocol::response_topic(holder.id()));
  const std::string rt = "rt/WAITED" + std::to_string(getpid());
  holder.send(protocol::kRequestTopic, Request::ACQUIRE, rt, holder.id());
  if (holder.answer(protocol::response_topic(holder.id())) != Response::ACQUIRED) {
    return false;
  }
  tokard::client::ClientOptions options{name};
  options.host = host;
  options.port = port;
  tokard::client::TokenClient client(options);
  if (client.connect()) {
    std::fprintf(stderr, "handover: the client library did not connect\n");
    return false;
  }
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  std::thread renew([&] {  // the holder keeps its token all the time
    while (Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::seconds(3));
      holder.send(protocol::kRequestTopic, Request::ACQUIRE, rt, holder.id());
    }
  });
  const auto result = client.wait_for_token(rt, deadline);
  renew.join();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the last ones reach the counter
  const std::size_t sent =
      counter.sent_by(protocol::kWaitTopic, name) + counter.sent_by(protocol::kRequestTopic, name);
  std::printf("waiting: %zu requests from a waiter in %d s of wait_for_token (%s at the end)\n",
              sent, seconds, tokard::client::to_string(result));
  return true;
}

// Renewal round trips of a holder, alternating rounds without and with 64
// clients in line for its ECU.
bool renewals(const std::string& host, int port, int count) {
  const std::string prefix = "rn" + std::to_string(getpid()) + "-";
  Conn alone(host, port, prefix + "alone"), crowded(host, port, prefix + "crowded"),
      feeder(host, port, prefix + "feeder");
  std::vector<double> times[2];
  const std::string ecus[2] = {"rt/RENEW0-" + prefix, "rt/RENEW64-" + prefix};
  Conn* holders[2] = {&alone, &crowded};
  for (int k = 0; k < 2; ++k) {
    holders[k]->subscribe(protocol::response_topic(holders[k]->id()));
    holders[k]->send(protocol::kRequestTopic, Request::ACQUIRE, ecus[k], holders[k]->id());
    if (holders[k]->answer(protocol::response_topic(holders[k]->id())) != Response::ACQUIRED) {
      return false;
    }
  }
  constexpr int kRounds = 20, kWarmup = 20;
  for (int round = 0; round < 2 * kRounds; ++round) {
    const int k = round % 2;
    Conn& holder = *holders[k];
    if (k == 1) {  // (re)fills the line; the waiters must not go silent
      for (std::size_t i = 0; i < protocol::kMaxWaiters; ++i) {
        feeder.send(protocol::kWaitTopic, Request::ACQUIRE, ecus[1], prefix + std::to_string(i));
      }
    }
    for (int i = 0; i < kWarmup + count / kRounds; ++i) {
      const auto sent = Clock::now();
      holder.send(protocol::kRequestTopic, Request::ACQUIRE, ecus[k], holder.id());
      if (holder.answer(protocol::response_topic(holder.id())) != Response::ACQUIRED) {
        std::fprintf(stderr, "handover: renewal refused\n");
        return false;
      }
      if (i >= kWarmup) {
        times[k].push_back(us(Clock::now() - sent));
      }
    }
  }
  std::printf(
      "renewal: %d round trips each, none in line p50 %.0f us p99 %.0f us, 64 in line "
      "p50 %.0f us p99 %.0f us, ratio of medians %.3f\n",
      count, at(times[0], 0.5), at(times[0], 0.99), at(times[1], 0.5), at(times[1], 0.99),
      at(times[1], 0.5) / at(times[0], 0.5));
  return true;
}

long rss_kib(int pid) {
  std::FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
  char line[256];
  long kib = -1;
  while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr) {
    std::sscanf(line, "VmRSS: %ld", &kib);
  }
  if (f != nullptr) {
    std::fclose(f);
  }
  return kib;
}

// tokard's resident memory with `count` ECUs held, then with a client in line
// for each, then after those waiters went silent.
bool memory(const std::string& host, int port, int count, int pid) {
  const std::string prefix = "mem" + std::to_string(getpid()) + "-";
  Conn holder(host, port, prefix + "holder"), waiter(host, port, prefix + "waiter");
  const auto each = [&](Conn& c, const char* topic) {
    c.subscribe(protocol::response_topic(c.id()));
    for (int i = 0; i < count; i += 100) {
      for (int k = i; k < std::min(count, i + 100); ++k) {
        c.send(topic, Request::ACQUIRE, "rt/" + prefix + std::to_string(k), c.id());
      }
      for (int k = i; k < std::min(count, i + 100); ++k) {
        if (c.answer(protocol::response_topic(c.id())) == 0) {
          return false;
        }
      }
    }
    return true;
  };
  if (!each(holder, protocol::kRequestTopic)) {
    return false;
  }
  const long held = rss_kib(pid);
  if (!each(waiter, protocol::kWaitTopic)) {
    return false;
  }
  const long waited = rss_kib(pid);
  std::this_thread::sleep_for(protocol::kTokenTimeout + std::chrono::seconds(1));
  std::printf(
      "memory: %d ECUs held %ld KiB, each with a client in line %ld KiB (%.0f bytes per "
      "waiter), after they went silent %ld KiB\n",
      count, held, waited, (waited - held) * 1024.0 / count, rss_kib(pid));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string host = "127.0.0.1";
  int port = 1883, count = 1000, wait_s = 30, renewals_count = 2000, ecus = 0, pid = 0;
  for (int opt; (opt = getopt(argc, argv, "h:p:n:w:r:m:P:")) != -1;) {
    switch (opt) {
      case 'h':
        host = optarg;
        break;
      case 'p':
        port = std::atoi(optarg);
        break;
      case 'n':
        count = std::atoi(optarg);
        break;
      case 'w':
        wait_s = std::atoi(optarg);
        break;
      case 'r':
        renewals_count = std::atoi(optarg);
        break;
      case 'm':
        ecus = std::atoi(optarg);
        break;
      case 'P':
        pid = std::atoi(optarg);
        break;
      default:
        std::fprintf(stderr,
                     "usage: handover [-h host] [-p port] [-n hand-overs] [-w wait s] [-r renewals]"
                     " [-m ECUs -P tokard-pid]\n");
        return 2;
    }
  }
  mosquitto_lib_init();
  const bool ok = handovers(host, port, count) && renewals(host, port, renewals_count) &&
                  (wait_s == 0 || waiting(host, port, wait_s)) &&
                  (ecus == 0 || memory(host, port, ecus, pid));
  mosquitto_lib_cleanup();
  return ok ? 0 : 1;
}
