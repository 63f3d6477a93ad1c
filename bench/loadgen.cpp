// Closed-loop load for tokard's token service. C clients, each with its own
// connection and client name, publish a framed acquire on
// "system/tokard/request" (QoS 1) and wait for the answer on
// "app/<client>/pgn/response" before sending the next. Request k of client c
// names "rt/ECU<(k*C + c) mod E>", so N requests name min(N, E) ECUs.
//
// With -m mix every answer is followed by a release of the same topic, sent
// just before the next acquire, so that each acquire is a grant to a new
// holder and each release frees the token. Client c then keeps to ECUs of
// its own, "rt/ECU<(k mod max(1, E/C))*C + c>", so that no client finds a
// token another one holds. The round trip is the acquire's (a release has no
// answer); answers/s counts acquire and release pairs. The releases still
// owed at the end are sent and acknowledged before the clients disconnect.
//
//   loadgen [-h host] [-p port] [-c clients] [-e ecus] (-n requests | -d seconds)
//           [-m acquire|mix] [-w warmup_ms] [-t timeout_ms] [-T limit_s]
//           [-o rtt_file] [-x name_prefix]
//   loadgen -P        prints a free loopback port and exits
//   loadgen -G STATUS writes an EngineState group frame (Speed with STATUS,
//                     Torque 0) to standard output and exits
//
// Requests sent during the warm-up are answered but not counted. An answer
// that takes longer than the time-out is counted as lost. The last line,
// "RESULT key=value ...", is for scripts. Exit status 0 when the run
// completed (losses included), 2 on usage or connection errors.
#include <arpa/inet.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "com/protocol.h"
#include "ecu/pb/pgn.pb.h"

namespace {

using Clock = std::chrono::steady_clock;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;

using tokard::protocol::kRequestTopic;
constexpr int kKeepaliveS = 60;
constexpr auto kFlushLimit = std::chrono::seconds(2);  // for the releases owed at the end

struct Options {
  std::string host = "127.0.0.1";
  int port = 1883;
  int clients = 1;
  int ecus = 1;
  long requests = 0;   // measured requests in all (count mode)
  double seconds = 0;  // measured time (duration mode)
  long warmup_ms = 0;
  long timeout_ms = 2000;
  double limit_s = 120;  // hard bound on the whole run
  std::string rtt_file;
  std::string prefix;
  bool mix = false;  // a release after every answer
};

struct Totals {
  long requests = 0;
  long answered = 0;
  long lost = 0;
  long warmup_sent = 0;
  long warmup_lost = 0;
  long late = 0;        // answers that came after their request was given up
  long stray = 0;       // answers with no request waiting
  long mismatched = 0;  // answers whose request_topic is not the request's
  long releases = 0;
  long results[5] = {};  // by result value; [0] anything else
  int errors = 0;
  std::vector<std::int64_t> rtt_ns;
};

struct Client {
  int index = 0;
  std::string name;
  std::string response_topic;
  mosquitto* handle = nullptr;
  bool subscribed = false;
  bool failed = false;
  long quota = 0;  // measured requests still to send (count mode)
  std::uint64_t next = 0;
  bool outstanding = false;
  bool measured = false;
  Clock::time_point sent_at;
  std::string topic;         // request_topic of the outstanding request
  int stale = 0;             // requests given up whose answer may still come
  bool release_due = false;  // mix: the last acquire's topic is to be released
  int unacked = 0;           // publishes without their PUBACK yet
  Totals* totals = nullptr;
};

int free_port() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    return 0;
  }
  close(fd);
  return ntohs(addr.sin_port);
}

void on_connect(mosquitto* handle, void* self, int rc) {
  auto* client = static_cast<Client*>(self);
  if (rc != 0) {
    std::fprintf(stderr, "loadgen: %s refused: %s\n", client->name.c_str(),
                 mosquitto_connack_string(rc));
    client->failed = true;
    return;
  }
  mosquitto_subscribe(handle, nullptr, client->response_topic.c_str(), 1);
}

void on_subscribe(mosquitto* /*handle*/, void* self, int /*mid*/, int /*count*/,
                  const int* /*granted*/) {
  static_cast<Client*>(self)->subscribed = true;
}

void on_publish(mosquitto* /*handle*/, void* self, int /*mid*/) {
  --static_cast<Client*>(self)->unacked;
}

void on_message(mosquitto* /*handle*/, void* self, const mosquitto_message* msg) {
  const Clock::time_point now = Clock::now();
  auto* client = static_cast<Client*>(self);
  Totals& totals = *client->totals;
  if (client->response_topic != msg->topic) {
    ++totals.stray;
    return;
  }
  if (client->stale > 0) {
    --client->stale;
    ++totals.late;
    return;
  }
  if (!client->outstanding) {
    ++totals.stray;
    return;
  }
  client->outstanding = false;
  client->release_due = true;
  if (!client->measured) {
    return;
  }
  ++totals.answered;
  totals.rtt_ns.push_back(
      std::chrono::duration_cast<std::chrono::nanoseconds>(now - client->sent_at).count());

  ecu::lapi::com::Message frame;
  const auto* bytes = static_cast<const std::uint8_t*>(msg->payload);
  frame.payload.assign(bytes, bytes + msg->payloadlen);
  const auto decoded = tokard::protocol::read<PgnRequestTokenResponse>(frame);
  const int result = decoded.ok ? decoded.value.result() : 0;
  ++totals.results[result >= 2 && result <= 4 ? result : 0];
  if (!decoded.ok || decoded.value.request_topic() != client->topic) {
    ++totals.mismatched;
  }
}

bool publish(Client& client, const tokard::protocol::Message& frame) {
  const int rc =
      mosquitto_publish(client.handle, nullptr, kRequestTopic,
                        static_cast<int>(frame.payload.size()), frame.payload.data(), 1, false);
  if (rc != MOSQ_ERR_SUCCESS) {
    std::fprintf(stderr, "loadgen: %s cannot publish: %s\n", client.name.c_str(),
                 mosquitto_strerror(rc));
    return false;
  }
  ++client.unacked;
  return true;
}

// Mix mode: gives back the token of the last acquire, answered or given up.
bool send_release(Client& client) {
  if (!client.release_due) {
    return true;
  }
  client.release_due = false;
  const auto frame =
      tokard::protocol::request_frame(PgnRequestTokenRequest::RELEASE, client.topic, client.name);
  if (frame.payload.empty() || !publish(client, frame)) {
    return false;
  }
  ++client.totals->releases;
  return true;
}

std::uint64_t ecu_of(const Client& client, const Options& options, std::uint64_t k) {
  const auto clients = static_cast<std::uint64_t>(options.clients);
  const auto index = static_cast<std::uint64_t>(client.index);
  const auto ecus = static_cast<std::uint64_t>(options.ecus);
  if (options.mix) {
    return (k % std::max<std::uint64_t>(1, ecus / clients)) * clients + index;
  }
  return (k * clients + index) % ecus;
}

bool send_request(Client& client, const Options& options, Clock::time_point measure_from) {
  if (options.mix && !send_release(client)) {
    return false;
  }
  const std::uint64_t k = client.next++;
  client.topic =
      std::string(tokard::protocol::kRtPrefix) + "ECU" + std::to_string(ecu_of(client, options, k));

  const auto frame =
      tokard::protocol::request_frame(PgnRequestTokenRequest::ACQUIRE, client.topic, client.name);
  if (frame.payload.empty()) {
    return false;
  }

  client.sent_at = Clock::now();
  client.measured = client.sent_at >= measure_from;
  if (!publish(client, frame)) {
    return false;
  }
  client.outstanding = true;
  if (client.measured) {
    ++client.totals->requests;
    --client.quota;
  } else {
    ++client.totals->warmup_sent;
  }
  return true;
}

// One pass of every connection: waits up to `wait_ms` for traffic, then
// reads and writes what is ready. False when a connection has failed.
bool pump(std::vector<Client>& clients, std::vector<pollfd>& fds, int wait_ms) {
  for (std::size_t i = 0; i < clients.size(); ++i) {
    mosquitto* handle = clients[i].handle;
    fds[i].fd = mosquitto_socket(handle);
    fds[i].events = static_cast<short>(POLLIN | (mosquitto_want_write(handle) ? POLLOUT : 0));
    fds[i].revents = 0;
  }
  if (poll(fds.data(), fds.size(), wait_ms) < 0) {
    return errno == EINTR;
  }
  bool healthy = true;
  for (std::size_t i = 0; i < clients.size(); ++i) {
    Client& client = clients[i];
    const short ready = fds[i].revents;
    int rc = MOSQ_ERR_SUCCESS;
    if ((ready & (POLLIN | POLLERR | POLLHUP)) != 0) {
      rc = mosquitto_loop_read(client.handle, 1);
    }
    if (rc == MOSQ_ERR_SUCCESS && (ready & POLLOUT) != 0) {
      rc = mosquitto_loop_write(client.handle, 1);
    }
    if (rc != MOSQ_ERR_SUCCESS || client.failed) {
      if (!client.failed) {
        std::fprintf(stderr, "loadgen: %s lost its connection: %s\n", client.name.c_str(),
                     mosquitto_strerror(rc));
      }
      client.failed = true;
      healthy = false;
    }
  }
  return healthy;
}

double percentile_us(const std::vector<std::int64_t>& sorted, double q) {
  if (sorted.empty()) {
    return 0;
  }
  // Nearest rank.
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(sorted.size())));
  return static_cast<double>(sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1]) / 1000.0;
}

void usage(const char* self) {
  std::fprintf(stderr,
               "usage: %s [-h host] [-p port] [-c clients] [-e ecus] (-n requests | -d seconds)\n"
               "          [-m acquire|mix] [-w warmup_ms] [-t timeout_ms] [-T limit_s]\n"
               "          [-o rtt_file] [-x name_prefix]\n"
               "       %s -P\n",
               self, self);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.prefix = "lg" + std::to_string(getpid()) + "c";
  int opt = 0;
  while ((opt = getopt(argc, argv, "h:p:c:e:n:d:m:w:t:T:o:x:PG:")) != -1) {
    switch (opt) {
      case 'h':
        options.host = optarg;
        break;
      case 'p':
        options.port = std::atoi(optarg);
        break;
      case 'c':
        options.clients = std::atoi(optarg);
        break;
      case 'e':
        options.ecus = std::atoi(optarg);
        break;
      case 'n':
        options.requests = std::atol(optarg);
        break;
      case 'd':
        options.seconds = std::atof(optarg);
        break;
      case 'm':
        if (std::strcmp(optarg, "mix") != 0 && std::strcmp(optarg, "acquire") != 0) {
          usage(argv[0]);
          return 2;
        }
        options.mix = std::strcmp(optarg, "mix") == 0;
        break;
      case 'w':
        options.warmup_ms = std::atol(optarg);
        break;
      case 't':
        options.timeout_ms = std::atol(optarg);
        break;
      case 'T':
        options.limit_s = std::atof(optarg);
        break;
      case 'o':
        options.rtt_file = optarg;
        break;
      case 'x':
        options.prefix = optarg;
        break;
      case 'G': {
        const std::string bytes("\x05\x1a\x00\xff", 4);
        const auto frame = tokard::protocol::group_frame(
            "EngineState", {{"Speed", bytes, static_cast<std::uint32_t>(std::atol(optarg))},
                            {"Torque", bytes, 0}});
        return std::fwrite(frame.payload.data(), 1, frame.payload.size(), stdout) ==
                       frame.payload.size()
                   ? 0
                   : 2;
      }
      case 'P': {
        const int port = free_port();
        std::printf("%d\n", port);
        return port > 0 ? 0 : 2;
      }
      default:
        usage(argv[0]);
        return 2;
    }
  }
  if (options.clients < 1 || options.ecus < 1 || options.timeout_ms < 1 ||
      (options.requests > 0) == (options.seconds > 0) || options.requests < 0 ||
      options.seconds < 0) {
    usage(argv[0]);
    return 2;
  }
  const bool count_mode = options.requests > 0;

  mosquitto_lib_init();
  Totals totals;
  std::vector<Client> clients(static_cast<std::size_t>(options.clients));
  for (int i = 0; i < options.clients; ++i) {
    Client& client = clients[static_cast<std::size_t>(i)];
    client.index = i;
    client.name = options.prefix + std::to_string(i);
    client.response_topic = tokard::protocol::response_topic(client.name);
    client.totals = &totals;
    client.quota = count_mode ? options.requests / options.clients +
                                    (i < options.requests % options.clients ? 1 : 0)
                              : 0;
    client.handle = mosquitto_new(client.name.c_str(), true, &client);
    if (client.handle == nullptr) {
      std::perror("loadgen: mosquitto_new");
      return 2;
    }
    mosquitto_int_option(client.handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    // Without it every QoS 1 exchange waits ~40 ms for a delayed ACK.
    mosquitto_int_option(client.handle, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(client.handle, on_connect);
    mosquitto_subscribe_callback_set(client.handle, on_subscribe);
    mosquitto_publish_callback_set(client.handle, on_publish);
    mosquitto_message_callback_set(client.handle, on_message);
    const int rc =
        mosquitto_connect(client.handle, options.host.c_str(), options.port, kKeepaliveS);
    if (rc != MOSQ_ERR_SUCCESS) {
      std::fprintf(stderr, "loadgen: cannot connect to %s:%d: %s\n", options.host.c_str(),
                   options.port, mosquitto_strerror(rc));
      return 2;
    }
  }

  std::vector<pollfd> fds(clients.size());
  const Clock::time_point connect_deadline = Clock::now() + std::chrono::seconds(10);
  while (
      !std::all_of(clients.begin(), clients.end(), [](const Client& c) { return c.subscribed; })) {
    if (!pump(clients, fds, 10) || Clock::now() > connect_deadline) {
      std::fprintf(stderr, "loadgen: clients not subscribed within 10 s\n");
      return 2;
    }
  }

  const Clock::time_point start = Clock::now();
  const Clock::time_point measure_from = start + std::chrono::milliseconds(options.warmup_ms);
  const Clock::time_point measure_until =
      count_mode ? Clock::time_point::max()
                 : measure_from + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(options.seconds));
  const Clock::time_point hard_limit = start + std::chrono::duration_cast<Clock::duration>(
                                                   std::chrono::duration<double>(options.limit_s));
  const auto timeout = std::chrono::milliseconds(options.timeout_ms);
  Clock::time_point last_misc = start;
  bool aborted = false;

  for (;;) {
    const Clock::time_point now = Clock::now();
    bool busy = false;
    for (Client& client : clients) {
      if (client.outstanding && now - client.sent_at > timeout) {
        client.outstanding = false;
        client.release_due = true;
        ++client.stale;
        ++(client.measured ? totals.lost : totals.warmup_lost);
      }
      const bool may_send =
          now < measure_until && (now < measure_from || !count_mode || client.quota > 0);
      if (!client.outstanding && may_send && !client.failed) {
        if (!send_request(client, options, measure_from)) {
          client.failed = true;
          ++totals.errors;
        }
      }
      busy = busy || client.outstanding;
      busy = busy || (may_send && !client.failed);
    }
    if (!busy) {
      break;
    }
    if (now > hard_limit) {
      aborted = true;
      for (Client& client : clients) {
        if (client.outstanding) {
          ++(client.measured ? totals.lost : totals.warmup_lost);
        }
      }
      break;
    }
    if (!pump(clients, fds, 10)) {
      ++totals.errors;
      aborted = true;
      break;
    }
    if (now - last_misc > std::chrono::seconds(1)) {
      for (Client& client : clients) {
        mosquitto_loop_misc(client.handle);
      }
      last_misc = now;
    }
  }
  const Clock::time_point end = Clock::now();

  // No token is left held for the next run: the releases owed go out and are
  // acknowledged (bounded) before the clients disconnect.
  if (options.mix && !aborted) {
    for (Client& client : clients) {
      if (!client.failed && !send_release(client)) {
        ++totals.errors;
      }
    }
  }
  const Clock::time_point flush_until = Clock::now() + kFlushLimit;
  auto flushed = [&clients] {
    return std::all_of(clients.begin(), clients.end(), [](const Client& c) {
      return c.failed || (c.unacked <= 0 && !mosquitto_want_write(c.handle));
    });
  };
  while (!aborted && !flushed()) {
    if (Clock::now() > flush_until || !pump(clients, fds, 10)) {
      std::fprintf(stderr, "loadgen: publishes not acknowledged within %lld s\n",
                   static_cast<long long>(kFlushLimit.count()));
      ++totals.errors;
      break;
    }
  }

  for (Client& client : clients) {
    mosquitto_disconnect(client.handle);
    mosquitto_destroy(client.handle);
  }
  mosquitto_lib_cleanup();

  std::vector<std::int64_t> sorted = totals.rtt_ns;
  std::sort(sorted.begin(), sorted.end());
  const Clock::time_point measured_end = count_mode ? end : std::min(end, measure_until);
  const double elapsed = std::chrono::duration<double>(measured_end - measure_from).count();
  const double rate = elapsed > 0 ? static_cast<double>(totals.answered) / elapsed : 0;
  const double p50 = percentile_us(sorted, 0.50);
  const double p90 = percentile_us(sorted, 0.90);
  const double p99 = percentile_us(sorted, 0.99);
  const double max = sorted.empty() ? 0 : static_cast<double>(sorted.back()) / 1000.0;

  if (!options.rtt_file.empty()) {
    std::ofstream out(options.rtt_file);
    for (const std::int64_t ns : totals.rtt_ns) {
      out << static_cast<double>(ns) / 1000.0 << '\n';
    }
  }

  std::printf("loadgen: %d clients, %d ECUs, broker %s:%d, %s mode%s\n", options.clients,
              options.ecus, options.host.c_str(), options.port, options.mix ? "mix" : "acquire",
              aborted ? ", ABORTED" : "");
  std::printf("requests    %ld (warm-up %ld more, %ld of them lost)\n", totals.requests,
              totals.warmup_sent, totals.warmup_lost);
  std::printf("answered    %ld\n", totals.answered);
  std::printf("lost        %ld (late answers %ld, stray %ld)\n", totals.lost, totals.late,
              totals.stray);
  std::printf("answers/s   %.1f over %.2f s\n", rate, elapsed);
  std::printf("round trip  p50 %.1f us  p90 %.1f us  p99 %.1f us  max %.1f us\n", p50, p90, p99,
              max);
  std::printf(
      "results     ACQUIRED %ld  BUSY %ld  NO_ECU %ld  other %ld  (request_topic not echoed: "
      "%ld)\n",
      totals.results[3], totals.results[4], totals.results[2], totals.results[0],
      totals.mismatched);
  std::printf("releases    %ld\n", totals.releases);
  std::printf(
      "RESULT clients=%d ecus=%d requests=%ld answered=%ld lost=%ld lost_total=%ld rate=%.1f "
      "p50_us=%.1f p90_us=%.1f p99_us=%.1f max_us=%.1f acquired=%ld busy=%ld no_ecu=%ld other=%ld "
      "mismatched=%ld releases=%ld errors=%d aborted=%d\n",
      options.clients, options.ecus, totals.requests, totals.answered, totals.lost,
      totals.lost + totals.warmup_lost, rate, p50, p90, p99, max, totals.results[3],
      totals.results[4], totals.results[2], totals.results[0], totals.mismatched, totals.releases,
      totals.errors, aborted ? 1 : 0);
  return totals.errors > 0 ? 2 : 0;
}
