#include "ecu/ecu.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <ostream>
#include <utility>
#include <vector>

#include "lapi/logging/logging.h"
#include "lapi/rt/signal_adapter.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.ecu");

constexpr const char* kTxPrefix = "rttx/";
constexpr std::size_t kTxPrefixSize = 5;
constexpr std::size_t kPrintedBytes = 4;

// Zero fill and width 2 reach the first byte only, giving "05 1a 0 ff ": the
// established format of the signal line.
struct FirstBytes {
  const std::vector<std::uint8_t>& data;
};

std::ostream& operator<<(std::ostream& out, const FirstBytes& bytes) {
  const std::size_t count = std::min(bytes.data.size(), kPrintedBytes);
  out << std::hex << std::setfill('0');
  for (std::size_t i = 0; i < count; ++i) {
    if (i == 0) {
      out << std::setw(2);
    }
    out << static_cast<unsigned>(bytes.data[i]) << " ";
  }
  return out << std::dec;
}

}  // namespace

Ecu::Ecu(const std::string& name) : m_name(name) {}

Ecu::~Ecu() = default;

bool Ecu::add_topic(const std::string& topic) { return m_topics.insert(topic).second; }

bool Ecu::acquire_token(const std::string& client) {
  LAPI_LOG(DEBUG, g_log) << "[" << m_name << "]  (before acquire) m_request_active: "
                         << (m_request_active.load() ? "TRUE" : "FALSE")
                         << " m_token_taken_by_client: " << m_token_taken_by_client;
  if (m_request_active.load()) {
    return false;
  }
  if (client == m_token_taken_by_client) {
    LAPI_LOG(INFO, g_log) << "[" << m_name << "] client " << m_token_taken_by_client
                          << " token refreshed";
    m_token_time = now();
    return true;
  }
  if (m_token_taken_by_client.empty()) {
    LAPI_LOG(DEBUG, g_log) << "[" << m_name << "] no client has token, allow " << client;
  } else {
    const std::chrono::nanoseconds held = now() - m_token_time;
    if (held <= std::chrono::nanoseconds(m_token_timeout)) {
      LAPI_LOG(INFO, g_log) << "[" << m_name << "] Active client: " << m_token_taken_by_client;
      return false;
    }
    LAPI_LOG(DEBUG, g_log) << "[" << m_name << "] " << m_token_taken_by_client
                           << " had token to long, allow " << client;
  }
  m_token_time = now();
  m_token_taken_by_client = client;
  return true;
}

bool Ecu::release_token(const std::string& client) {
  if (m_token_taken_by_client.empty()) {
    return true;
  }
  if (client != m_token_taken_by_client) {
    LAPI_LOG(DEBUG, g_log) << "[" << m_name << "] Token taken by " << m_token_taken_by_client
                           << " release from " << client << " prohibited";
    return false;
  }
  LAPI_LOG(INFO, g_log) << "[" << m_name << "] Token explicitly released for client " << client;
  m_token_taken_by_client.clear();
  return true;
}

void Ecu::message(const std::string& topic, const ecu::lapi::com::Message& msg) {
  // Groups are defined for the receive form only; transmit traffic is judged
  // by the same definition.
  std::string unpack_topic;
  if (topic.compare(0, kTxPrefixSize, kTxPrefix) == 0) {
    unpack_topic = "rt/" + topic.substr(kTxPrefixSize);
  }
  auto result = ecu::lapi::rt::SignalAdapter::instance().unpack(
      unpack_topic.empty() ? topic : unpack_topic, msg);
  if (!result.success) {
    LAPI_LOG(ERROR, g_log) << "[" << m_name << "] unable to deserialize message for " << topic;
    return;
  }

  const ecu::lapi::rt::SignalGroup group = std::move(result.group);
  m_request_active.store(group.is_valid());
  LAPI_LOG(DEBUG, g_log) << "[" << m_name << "] SignalGroup " << group.name()
                         << " is valid: " << (group.is_valid() ? "YES" : "NO");
  for (const auto& signal : group.signals()) {
    LAPI_LOG(DEBUG, g_log) << "[" << m_name << "] " << signal.name() << " - "
                           << FirstBytes{signal.data()} << " - Status: " << signal.status();
  }

  if (!m_request_active.load()) {
    m_token_taken_by_client.clear();
  }
  LAPI_LOG(INFO, g_log) << "[" << m_name
                        << "] Accept requests: " << (m_request_active.load() ? "NO" : "YES") << " '"
                        << topic << "'";
}

}  // namespace tokard
