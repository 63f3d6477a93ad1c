// When and where the transport connects: the rotation through every address
// of the broker's name, the back-off between rounds, and the log lines of a
// failed attempt, a lost connection and its recovery. Driven by the loop
// thread only; it decides and logs, the caller connects and waits.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lapi/com/mosquitto_api.h"

namespace ecu::lapi::com {

class ConnectPolicy {
 public:
  using Clock = std::chrono::steady_clock;
  using Delay = std::optional<std::chrono::milliseconds>;

  // Waits `first_retry` after the first failed round, doubled after every
  // further one up to `longest_retry`.
  ConnectPolicy(IMosquitto& lib, std::string host, int port, std::chrono::milliseconds first_retry,
                std::chrono::milliseconds longest_retry,
                std::function<Clock::time_point()> now = &Clock::now);

  // The address to try next, resolving the name at the start of a round;
  // the name itself when it does not resolve (libmosquitto then says why).
  // libmosquitto's non-blocking connect tries only the first address of a
  // name, which for "localhost" may be ::1 while the broker listens on
  // 127.0.0.1 only.
  [[nodiscard]] const std::string& next_address();
  // A new attempt on a new socket: the last refusal is forgotten.
  void attempt_started();
  // The attempt could not start: nullopt to try the next address of this
  // round at once, else the wait before the next round (logged).
  [[nodiscard]] Delay attempt_failed(const std::string& failure);
  // The network loop failed and the socket is closed: the wait before the
  // next attempt. `failure` says why, unless the broker refused the CONNECT.
  [[nodiscard]] Delay loop_failed(const std::string& failure);

  // The broker's CONNACK with `rc`: a refusal is remembered for the log line
  // of the failed attempt; an acceptance resets the back-off and the
  // rotation, and logs the recovery from a loss.
  void acknowledged(int rc);
  // The connection ended: rc 0 after our DISCONNECT, else lost (logged when
  // the session was up).
  void ended(int rc, bool was_connected);
  // The connection is down because the application asked for it: no outage.
  void not_wanted() { m_lost_at = {}; }

  [[nodiscard]] bool session_up() const { return m_session_up; }
  [[nodiscard]] const std::string& host() const { return m_host; }
  [[nodiscard]] int port() const { return m_port; }
  // "host:port" for log lines.
  [[nodiscard]] std::string where() const;

 private:
  Delay retry_later(const std::string& failure);

  IMosquitto& m_lib;
  const std::string m_host;
  const int m_port;
  const std::chrono::milliseconds m_first_retry;
  const std::chrono::milliseconds m_longest_retry;
  const std::function<Clock::time_point()> m_now;

  std::vector<std::string> m_addresses;  // the current round's
  std::size_t m_next_address = 0;
  std::chrono::milliseconds m_retry_delay;
  int m_failed_attempts = 0;
  bool m_session_up = false;      // CONNACK accepted on the current socket
  std::string m_refusal;          // why the broker refused the current attempt
  Clock::time_point m_lost_at{};  // set while a lost connection is down
};

}  // namespace ecu::lapi::com
