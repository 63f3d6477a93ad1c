#include "ecu/ecu.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <mutex>
#include <ostream>
#include <utility>
#include <vector>

#include "com/protocol.h"
#include "lapi/logging/logging.h"
#include "lapi/rt/signal_adapter.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.ecu");

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

bool Ecu::add_topic(const std::string& topic) {
  const auto [it, added] = m_topics.insert(topic);
  if (added) {
    m_topic_order.push_back(&*it);
  }
  return added;
}

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
  ++m_history.generation;
  m_history.granted_unix_ms =
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
  if (m_listener) {
    m_listener->token_changed(*this);
  }
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
  if (m_listener) {
    m_listener->token_changed(*this);
  }
  return true;
}

void Ecu::restore(const std::string& holder, Clock::time_point lease_start, bool request_active,
                  const History& history) {
  m_history = history;
  m_token_taken_by_client = holder;
  m_token_time = lease_start;
  m_request_active.store(request_active);
}

void Ecu::message(const std::string& topic, const ecu::lapi::com::Message& msg) {
  const std::string unpack_topic = protocol::definition_topic_of_tx(topic);
  auto result = ecu::lapi::rt::SignalAdapter::instance().unpack(
      unpack_topic.empty() ? topic : unpack_topic, msg);
  if (!result.success) {
    LAPI_LOG(ERROR, g_log) << "[" << m_name << "] unable to deserialize message for " << topic;
    return;
  }

  const ecu::lapi::rt::SignalGroup group = std::move(result.group);
  // The lease watch changes records from a thread of its own.
  std::unique_lock<std::mutex> lock;
  if (m_line != nullptr) {
    lock = std::unique_lock<std::mutex>(m_line->mutex());
  }
  const bool was_active = m_request_active.load();
  const bool was_held = !m_token_taken_by_client.empty();
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
  const bool changed = m_listener && (was_active != m_request_active.load() ||
                                      was_held != !m_token_taken_by_client.empty());
  if (changed) {
    m_listener->token_changed(*this);
  }
  if (m_line != nullptr) {
    m_line->changed(*this);
  }
  if (changed) {
    m_listener->settle();
  }
}

}  // namespace tokard
