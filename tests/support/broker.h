#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#ifndef TOKARD_TEST_MOSQUITTO_CONF
#error "TOKARD_TEST_MOSQUITTO_CONF must name the test broker's configuration"
#endif

namespace tokard::test {

// Polls `condition` every 5 ms until it holds or `limit` has passed.
inline bool wait_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// A loopback port nobody listens on right now.
inline int free_port() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

inline bool port_open(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}

// A private mosquitto on a free loopback port, stopped by PID.
class MosquittoBroker {
 public:
  explicit MosquittoBroker(int port = free_port()) : m_port(port) { start(); }
  virtual ~MosquittoBroker() { stop(); }
  MosquittoBroker(const MosquittoBroker&) = delete;
  MosquittoBroker& operator=(const MosquittoBroker&) = delete;

  int port() const { return m_port; }

  void start() {
    if (m_pid > 0) {
      return;
    }
    m_pid = ::fork();
    if (m_pid == 0) {
      const std::string port = std::to_string(m_port);
      ::freopen("/dev/null", "w", stdout);
      ::freopen("/dev/null", "w", stderr);
      ::execlp("mosquitto", "mosquitto", "-c", TOKARD_TEST_MOSQUITTO_CONF, "-p", port.c_str(),
               static_cast<char*>(nullptr));
      ::_exit(127);
    }
    if (!wait_until([this] { return port_open(m_port); })) {
      stop();
      throw std::runtime_error("mosquitto did not come up on port " + std::to_string(m_port));
    }
  }

  void stop() {
    if (m_pid <= 0) {
      return;
    }
    // A SIGTERM that lands before mosquitto has installed its handler is
    // lost, so keep asking, and kill it after five seconds.
    int status = 0;
    for (int i = 0; i < 100; ++i) {
      ::kill(m_pid, i < 50 ? SIGTERM : SIGKILL);
      for (int j = 0; j < 10; ++j) {
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
          m_pid = -1;
          return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
  }

 private:
  int m_port;
  pid_t m_pid = -1;
};

}  // namespace tokard::test
