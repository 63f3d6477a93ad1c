// A private mosquitto on a free loopback port, scratch files, and the bounded
// wait every test uses instead of a sleep.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>

namespace tokard::test {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

// Polls `condition` every 5 ms until it holds or `limit` has passed.
inline bool wait_until(const std::function<bool()>& condition, milliseconds limit = 5s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// A socket on loopback `port`; port 0 binds one the kernel picks.
inline int loopback_socket(int port, sockaddr_in& addr) {
  addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  return ::socket(AF_INET, SOCK_STREAM, 0);
}
// A loopback port nobody listens on right now.
inline int free_port() {
  sockaddr_in addr;
  const int fd = loopback_socket(0, addr);
  socklen_t len = sizeof addr;
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}
inline bool port_open(int port) {
  sockaddr_in addr;
  const int fd = loopback_socket(port, addr);
  const bool open = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return open;
}

// A file of this test process in the temporary folder (tests run in parallel).
inline std::string scratch(const std::string& name) {
  return testing::TempDir() + "tokard_" + std::to_string(::getpid()) + "_" + name;
}
inline std::string write_file(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
  return path;
}
inline std::string read_file(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A second controller's broker on `port`, bridged to the broker on `main_port`
// as packaging/mosquitto/controller-bridge.conf does it, anonymous, on loopback.
inline std::string bridge_config(int port, int main_port) {
  std::string shipped = read_file(TOKARD_SOURCE_DIR "/packaging/mosquitto/controller-bridge.conf");
  const std::string bridge = shipped.substr(shipped.find("\nconnection "));
  return "listener " + std::to_string(port) + " 127.0.0.1\nallow_anonymous true\n" +
         std::regex_replace(bridge,
                            std::regex("\n(address|remote_username|remote_password) [^\n]*"), "") +
         "\naddress 127.0.0.1:" + std::to_string(main_port) + "\n";
}

// mosquitto with a configuration file (tests/support/mosquitto.conf unless
// given) on `port`, logging verbosely to a file. `stop` asks, `kill` takes it
// down without a goodbye to its clients; `start` brings it back on the port.
class Broker {
 public:
  explicit Broker(int port = free_port(), std::string config = TOKARD_TEST_MOSQUITTO_CONF,
                  bool port_in_config = false)
      : m_port(port),
        m_config(std::move(config)),
        m_port_in_config(port_in_config),
        m_log(scratch("mosquitto_" + std::to_string(port) + ".log")) {
    start();
  }
  virtual ~Broker() { stop(); }
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  int port() const { return m_port; }
  std::string log() const { return read_file(m_log); }

  void start() {
    if (m_pid > 0) {
      return;
    }
    const std::string port = std::to_string(m_port);
    m_pid = ::fork();
    if (m_pid == 0) {
      ::freopen(m_log.c_str(), "a", stdout);
      ::dup2(STDOUT_FILENO, STDERR_FILENO);
      ::execlp("mosquitto", "mosquitto", "-v", "-c", m_config.c_str(),
               m_port_in_config ? nullptr : "-p", port.c_str(), nullptr);
      ::_exit(127);
    }
    wait_until([this] {
      if (::waitpid(m_pid, nullptr, WNOHANG) != 0) {
        m_pid = -1;
      }
      return m_pid < 0 || port_open(m_port);
    });
    if (m_pid < 0 || !port_open(m_port)) {
      stop();
      throw std::runtime_error("mosquitto did not come up on port " + port + ":\n" + log());
    }
  }

  // A SIGTERM that lands before mosquitto has installed its handler is lost,
  // so it is repeated, and SIGKILL follows after five seconds.
  void stop() { end(SIGTERM); }
  void kill() { end(SIGKILL); }

 private:
  void end(int sig) {
    for (int i = 0; m_pid > 0 && i < 100; ++i) {
      ::kill(m_pid, i < 50 ? sig : SIGKILL);
      if (wait_until([this] { return ::waitpid(m_pid, nullptr, WNOHANG) != 0; }, 100ms)) {
        m_pid = -1;
      }
    }
  }

  int m_port;
  std::string m_config;
  bool m_port_in_config;
  std::string m_log;
  pid_t m_pid = -1;
};

}  // namespace tokard::test
