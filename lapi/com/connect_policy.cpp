#include "lapi/com/connect_policy.h"

#include <algorithm>
#include <cmath>

#include "lapi/logging/logging.h"

namespace ecu::lapi::com {
namespace {

const logging::LogModulePtr g_log = logging::module("lapi.com.mqtt");

}  // namespace

ConnectPolicy::ConnectPolicy(IMosquitto& lib, std::string host, int port,
                             std::chrono::milliseconds first_retry,
                             std::chrono::milliseconds longest_retry,
                             std::function<Clock::time_point()> now)
    : m_lib(lib),
      m_host(std::move(host)),
      m_port(port),
      m_first_retry(first_retry),
      m_longest_retry(longest_retry),
      m_now(std::move(now)),
      m_retry_delay(first_retry) {}

const std::string& ConnectPolicy::next_address() {
  if (m_next_address == 0) {
    m_addresses = m_lib.resolve(m_host);
    if (m_addresses.empty()) {
      m_addresses.push_back(m_host);
    }
  }
  return m_addresses[m_next_address];
}

void ConnectPolicy::attempt_started() {
  m_session_up = false;
  m_refusal.clear();
}

ConnectPolicy::Delay ConnectPolicy::attempt_failed(const std::string& failure) {
  return retry_later(failure);
}

ConnectPolicy::Delay ConnectPolicy::loop_failed(const std::string& failure) {
  if (m_session_up) {
    m_session_up = false;
    return retry_later("");  // the loss is logged already
  }
  return retry_later(m_refusal.empty() ? failure : m_refusal);
}

ConnectPolicy::Delay ConnectPolicy::retry_later(const std::string& failure) {
  // The next address of this round is tried at once; the back-off starts
  // when every address has failed.
  if (!failure.empty() && ++m_next_address < m_addresses.size()) {
    return std::nullopt;
  }
  m_next_address = 0;
  const auto delay = m_retry_delay;
  if (failure.empty()) {
    LAPI_LOG(INFO, g_log) << "reconnecting to " << where() << " in " << delay.count() << " ms";
  } else if (m_failed_attempts == 0) {
    LAPI_LOG(WARNING, g_log) << "cannot connect to " << where() << ": " << failure
                             << "; retrying in " << delay.count() << " ms";
  } else {
    LAPI_LOG(INFO, g_log) << "cannot connect to " << where() << ": " << failure << "; retrying in "
                          << delay.count() << " ms";
  }
  ++m_failed_attempts;
  m_retry_delay = std::min(delay * 2, m_longest_retry);
  return delay;
}

void ConnectPolicy::acknowledged(int rc) {
  if (rc != 0) {
    m_refusal = std::string("refused by the broker: ") + mosquitto_connack_string(rc);
    return;
  }
  m_session_up = true;
  m_failed_attempts = 0;
  m_next_address = 0;
  m_retry_delay = m_first_retry;
  if (m_lost_at == Clock::time_point{}) {
    return;
  }
  const std::chrono::duration<double> down = m_now() - m_lost_at;
  m_lost_at = {};
  const long long tenths = std::llround(down.count() * 10);
  LAPI_LOG(WARNING, g_log) << "connection to " << where() << " back after " << tenths / 10 << "."
                           << tenths % 10 << " s";
}

void ConnectPolicy::ended(int rc, bool was_connected) {
  if (rc == MOSQ_ERR_SUCCESS) {
    LAPI_LOG(INFO, g_log) << "disconnected from " << where();
  } else if (was_connected) {
    m_lost_at = m_now();
    LAPI_LOG(WARNING, g_log) << "connection to " << where() << " lost: " << error_text(rc);
  }
}

std::string ConnectPolicy::where() const { return m_host + ":" + std::to_string(m_port); }

}  // namespace ecu::lapi::com
