// The built tokard as a separate process, a mosquitto that can be killed
// outright, and application connections that send each request exactly once.
// Shared by the fault, load, hostile-input and access-control tests.
#pragma once

#include <fcntl.h>
#include <limits.h>
#include <mosquitto.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "com/message_adapter.h"
#include "ecu/pb/pgn.pb.h"
#include "integration/program/program.h"
#include "support/broker.h"

namespace tokard::test {

using Bytes = std::vector<std::uint8_t>;
using Request = ecu::lapi::pb::PgnRequestTokenRequest;
using Response = ecu::lapi::pb::PgnRequestTokenResponse;

inline const std::string kRequestTopic = "system/tokard/request";

inline std::string response_topic(const std::string& client) {
  return "app/" + client + "/pgn/response";
}

// The build tree this test executable belongs to (its parent directory).
inline std::string build_tree() {
  char path[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) {
    throw std::runtime_error("cannot read /proc/self/exe");
  }
  std::string dir(path, static_cast<std::size_t>(n));
  dir.erase(dir.rfind('/'));  // <build>/tests
  dir.erase(dir.rfind('/'));  // <build>
  return dir;
}

// The built daemon: $TOKARD_PROGRAM when set (e.g. a sanitizer or patched
// build), else the one this build tree made.
inline std::string built_tokard() {
  if (const char* path = std::getenv("TOKARD_PROGRAM"); path != nullptr && *path != '\0') {
    return path;
  }
  return build_tree() + "/src/main/tokard";
}

inline std::string write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::trunc) << text;
  return path;
}

// Milliseconds since `start`, for the figures the tests print.
inline long long ms_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

// A mosquitto on a fixed loopback port, which SIGKILL can take down without
// warning and `start` brings back on the same port. `config` either leaves the
// port to the command line (the tests' usual file) or names its own listener.
class Broker {
 public:
  explicit Broker(int port = free_port(), std::string config = TOKARD_TEST_MOSQUITTO_CONF,
                  bool port_in_config = false, std::string log_file = "/dev/null")
      : m_port(port),
        m_config(std::move(config)),
        m_port_in_config(port_in_config),
        m_log_file(std::move(log_file)) {
    start();
  }
  virtual ~Broker() { stop(); }
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  int port() const { return m_port; }

  void start() {
    if (m_pid > 0) {
      return;
    }
    const std::string port = std::to_string(m_port);
    m_pid = ::fork();
    if (m_pid < 0) {
      throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
      // Only async-signal-safe calls between fork and exec.
      const int log = ::open(m_log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      ::dup2(log, STDOUT_FILENO);
      ::dup2(log, STDERR_FILENO);
      if (m_port_in_config) {
        ::execlp("mosquitto", "mosquitto", "-c", m_config.c_str(), static_cast<char*>(nullptr));
      } else {
        ::execlp("mosquitto", "mosquitto", "-c", m_config.c_str(), "-p", port.c_str(),
                 static_cast<char*>(nullptr));
      }
      ::_exit(127);
    }
    bool ended = false;
    const bool up = wait_until([&] {
      ended = ::waitpid(m_pid, nullptr, WNOHANG) == m_pid;
      return ended || port_open(m_port);
    });
    if (ended) {
      m_pid = -1;
    }
    if (!up || ended) {
      kill();
      throw std::runtime_error("mosquitto did not come up on port " + port + " with " + m_config);
    }
  }

  // No goodbye to its clients: they find out from the dead socket.
  void kill() {
    if (m_pid <= 0) {
      return;
    }
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

  void stop() {
    if (m_pid <= 0) {
      return;
    }
    // A SIGTERM that lands before mosquitto has its handler is lost: repeat it.
    for (int i = 0; i < 50; ++i) {
      ::kill(m_pid, SIGTERM);
      if (wait_until([this] { return ::waitpid(m_pid, nullptr, WNOHANG) == m_pid; },
                     std::chrono::milliseconds(100))) {
        m_pid = -1;
        return;
      }
    }
    kill();
  }

 private:
  int m_port;
  std::string m_config;
  bool m_port_in_config;
  std::string m_log_file;
  pid_t m_pid = -1;
};

inline Bytes request_frame(Request::Action action, const std::string& rt_topic,
                           const std::string& client) {
  Request request;
  request.set_action(action);
  request.set_request_topic(rt_topic);
  request.set_client_name(client);
  return ecu::lapi::com::PbInternalMessageAdapter<Request>().serialize(request).second.payload;
}

inline std::optional<Response> decode_response(const Bytes& payload) {
  ecu::lapi::com::Message msg;
  msg.payload = payload;
  auto outcome = ecu::lapi::com::PbInternalMessageAdapter<Response>().deserialize(msg);
  if (!outcome.ok) {
    return std::nullopt;
  }
  return outcome.value;
}

// One application's connection to the broker. Unlike MqttProbe it sends each
// request once, so that every answer can be matched to its request; it keeps
// what arrives on its subscriptions, per topic, in arrival order.
class App {
 public:
  App(int port, const std::string& client_id, const std::string& username = "",
      const std::string& password = "")
      : m_id(client_id), m_mosq(nullptr, &mosquitto_destroy) {
    static const int init = mosquitto_lib_init();
    (void)init;
    m_mosq.reset(mosquitto_new(client_id.empty() ? nullptr : client_id.c_str(), true, this));
    if (!m_mosq) {
      throw std::runtime_error("mosquitto_new failed");
    }
    mosquitto_int_option(m_mosq.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_int_option(m_mosq.get(), MOSQ_OPT_TCP_NODELAY, 1);
    if (!username.empty()) {
      mosquitto_username_pw_set(m_mosq.get(), username.c_str(),
                                password.empty() ? nullptr : password.c_str());
    }
    mosquitto_connect_callback_set(m_mosq.get(), &App::on_connect);
    mosquitto_subscribe_callback_set(m_mosq.get(), &App::on_subscribe);
    mosquitto_message_callback_set(m_mosq.get(), &App::on_message);
    if (mosquitto_connect(m_mosq.get(), "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(m_mosq.get()) != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error("app could not reach port " + std::to_string(port));
    }
    wait_until([this] { return m_connack.load() >= 0; });
  }
  virtual ~App() {
    mosquitto_disconnect(m_mosq.get());
    mosquitto_loop_stop(m_mosq.get(), false);
  }
  App(const App&) = delete;
  App& operator=(const App&) = delete;

  const std::string& id() const { return m_id; }
  // The broker's CONNACK code (0 accepted, 5 not authorised), -1 if none came.
  int connack() const { return m_connack.load(); }
  bool connected() const { return m_connack.load() == 0; }

  // Subscribes and waits for the SUBACK: the granted QoS, 128 when the broker
  // refused the filter, -1 without an answer.
  int subscribe(const std::string& filter, int qos = 1) {
    int mid = 0;
    if (mosquitto_subscribe(m_mosq.get(), &mid, filter.c_str(), qos) != MOSQ_ERR_SUCCESS) {
      return -1;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::seconds(5),
                            [&] { return m_subacks.count(mid) != 0; })) {
      return -1;
    }
    return m_subacks[mid];
  }

  int publish(const std::string& topic, const Bytes& payload, int qos = 1) {
    return mosquitto_publish(m_mosq.get(), nullptr, topic.c_str(),
                             static_cast<int>(payload.size()), payload.data(), qos, false);
  }

  int send(Request::Action action, const std::string& rt_topic, const std::string& client) {
    return publish(kRequestTopic, request_frame(action, rt_topic, client));
  }

  // One acquire as `client` (by default this connection's id), and its answer
  // on the client's response topic, which the caller has subscribed. Late
  // answers to earlier requests for other topics are skipped.
  std::optional<Response> acquire(const std::string& rt_topic, const std::string& client = "",
                                  std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const std::string name = client.empty() ? m_id : client;
    if (send(Request::ACQUIRE, rt_topic, name) != MOSQ_ERR_SUCCESS) {
      return std::nullopt;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      const auto answer = next(response_topic(name), std::max(left, std::chrono::milliseconds(0)));
      if (!answer) {
        return std::nullopt;
      }
      auto decoded = decode_response(*answer);
      if (!decoded || decoded->request_topic() == rt_topic) {
        return decoded;
      }
    }
  }

  void release(const std::string& rt_topic, const std::string& client = "") {
    send(Request::RELEASE, rt_topic, client.empty() ? m_id : client);
  }

  // Takes the oldest message kept for `topic`, waiting up to `limit` for one.
  std::optional<Bytes> next(const std::string& topic,
                            std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto& queue = m_inbox[topic];
    if (!m_changed.wait_for(lock, limit, [&] { return !queue.empty(); })) {
      return std::nullopt;
    }
    Bytes payload = std::move(queue.front());
    queue.pop_front();
    return payload;
  }

  // How many messages have arrived on any topic since the connection began.
  std::size_t received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
  }

  std::size_t waiting(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_inbox.find(topic);
    return it == m_inbox.end() ? 0 : it->second.size();
  }

 private:
  static void on_connect(mosquitto*, void* self, int rc) {
    static_cast<App*>(self)->m_connack = rc;
  }
  static void on_subscribe(mosquitto*, void* self, int mid, int count, const int* granted) {
    auto* app = static_cast<App*>(self);
    {
      std::lock_guard<std::mutex> lock(app->m_mutex);
      app->m_subacks[mid] = count > 0 ? granted[0] : -1;
    }
    app->m_changed.notify_all();
  }
  static void on_message(mosquitto*, void* self, const mosquitto_message* msg) {
    auto* app = static_cast<App*>(self);
    const auto* bytes = static_cast<const std::uint8_t*>(msg->payload);
    {
      std::lock_guard<std::mutex> lock(app->m_mutex);
      app->m_inbox[msg->topic].emplace_back(bytes, bytes + msg->payloadlen);
      ++app->m_received;
    }
    app->m_changed.notify_all();
  }

  std::string m_id;
  std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)> m_mosq;
  std::atomic<int> m_connack{-1};
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::map<int, int> m_subacks;
  std::map<std::string, std::deque<Bytes>> m_inbox;
  std::size_t m_received = 0;
};

// The built tokard, logging to standard output, against a broker port. A
// thread of its own reads the output all the time: a pipe nobody reads
// fills up and stops the daemon at its next log line.
class Daemon {
 public:
  Daemon(int port, const std::string& level, const std::vector<std::string>& env = {},
         const std::string& program = built_tokard(),
         const std::vector<std::string>& more_args = {})
      : m_program(program, args(port, level, more_args), env), m_reader([this] { read(); }) {}
  virtual ~Daemon() {
    m_done = true;
    m_reader.join();
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Its wait status once it has ended and its output is read to the end.
  std::optional<int> status() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_status;
  }
  bool running() const { return !status().has_value(); }
  std::optional<int> wait_exit(std::chrono::milliseconds limit) const {
    wait_until([this] { return status().has_value(); }, limit);
    return status();
  }

  bool send(int sig) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_status && m_program.send(sig);
  }

  // Waits until the log, from the last `mark` on, contains `text`.
  bool wait_for_log(const std::string& text,
                    std::chrono::milliseconds limit = std::chrono::seconds(5)) const {
    return wait_until(
        [&] {
          std::lock_guard<std::mutex> lock(m_mutex);
          return m_program.out().find(text, m_seen) != std::string::npos;
        },
        limit);
  }
  void mark() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_seen = m_program.out().size();
  }

  std::size_t count_in_log(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::string& out = m_program.out();
    std::size_t count = 0;
    for (auto pos = out.find(text); pos != std::string::npos; pos = out.find(text, pos + 1)) {
      ++count;
    }
    return count;
  }

  std::string log() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_program.out();
  }
  std::string err() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_program.err();
  }

  // The end of the log with long lines cut, for failure messages.
  std::string tail(std::size_t lines = 30) const {
    std::vector<std::string> kept;
    std::istringstream in(log());
    for (std::string line; std::getline(in, line);) {
      if (line.size() > 200) {
        line = line.substr(0, 200) + "... (" + std::to_string(line.size()) + " bytes)";
      }
      kept.push_back(line);
    }
    std::string text = "--- tokard's log, last lines ---\n";
    for (std::size_t i = kept.size() > lines ? kept.size() - lines : 0; i < kept.size(); ++i) {
      text += kept[i] + "\n";
    }
    return text;
  }

 private:
  static std::vector<std::string> args(int port, const std::string& level,
                                       const std::vector<std::string>& more) {
    std::vector<std::string> words{"-L", "-l", level, "-H", "127.0.0.1", "-p",
                                   std::to_string(port)};
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }

  void read() {
    while (!m_done) {
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_status) {
          return;
        }
        m_status = m_program.wait(std::chrono::milliseconds(5));
      }
      // Room for the test's own calls: std::mutex is not fair.
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  mutable std::mutex m_mutex;
  Program m_program;
  std::optional<int> m_status;
  std::size_t m_seen = 0;
  std::atomic<bool> m_done{false};
  std::thread m_reader;
};

}  // namespace tokard::test
