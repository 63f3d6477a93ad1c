#include "queue/wait_lines.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "lapi/logging/logging.h"

namespace tokard {
namespace {

const ecu::lapi::logging::LogModulePtr g_log = ecu::lapi::logging::module("tokard.queue");

using protocol::Response;

}  // namespace

WaitLines::WaitLines(std::shared_ptr<ecu::lapi::com::ITransportClient> client,
                     std::function<Clock::time_point()> now)
    : m_client(std::move(client)),
      m_now(now ? now : [] { return Clock::now(); }),
      m_deadlines(
          m_mutex, [this](Deadlines::Key key) { advance(*static_cast<const Ecu*>(key)); },
          now == nullptr) {}

WaitLines::~WaitLines() { stop(); }

WaitLines::Line* WaitLines::find(const Ecu& ecu) {
  const auto found = m_lines.find(&ecu);
  return found == m_lines.end() ? nullptr : &found->second;
}

std::vector<std::string> WaitLines::waiters(const Ecu& ecu) const {
  const auto found = m_lines.find(&ecu);
  return found == m_lines.end() ? std::vector<std::string>{} : found->second.waiters.clients();
}

void WaitLines::changed(Ecu& ecu) { advance(ecu); }

WaitLines::Result WaitLines::join(const std::shared_ptr<Ecu>& ecu, const std::string& client,
                                  const std::string& topic) {
  advance(*ecu);
  Line* line = find(*ecu);
  // Nobody ahead, or a renewal: decided as an acquire.
  if ((line == nullptr || client == ecu->holder()) && ecu->acquire_token(client)) {
    advance(*ecu);
    return Response::ACQUIRED;
  }
  if (line == nullptr) {
    line = &m_lines.emplace(ecu.get(), Line{ecu, {}, Deadlines::kNever}).first->second;
  }
  switch (line->waiters.join(client, topic, m_now())) {
    case WaitLine::Join::Queued:
      LAPI_LOG(INFO, g_log) << "[" << ecu->m_name << "] " << client << " waits in line, place "
                            << line->waiters.size();
      ecu->line_changed();
      break;
    case WaitLine::Join::Repeated:
      LAPI_LOG(DEBUG, g_log) << "[" << ecu->m_name << "] " << client << " still waits";
      break;
    case WaitLine::Join::Full:
      LAPI_LOG(WARNING, g_log) << "[" << ecu->m_name << "] Line full with " << line->waiters.size()
                               << " clients, " << client << " not queued";
      break;
  }
  advance(*ecu);
  return Response::BUSY;
}

void WaitLines::leave(Ecu& ecu, const std::string& client) {
  Line* line = find(ecu);
  if (line == nullptr || !line->waiters.leave(client)) {
    LAPI_LOG(DEBUG, g_log) << "[" << ecu.m_name << "] " << client << " is not in line";
    return;
  }
  LAPI_LOG(INFO, g_log) << "[" << ecu.m_name << "] " << client << " left the line";
  ecu.line_changed();
  advance(ecu);
}

bool WaitLines::refuses(Ecu& ecu, const std::string& client) {
  advance(ecu);
  const Line* line = find(ecu);
  if (line == nullptr || client == ecu.holder()) {
    return false;
  }
  LAPI_LOG(INFO, g_log) << "[" << ecu.m_name << "] " << client << " asks past "
                        << line->waiters.size() << " clients in line";
  return true;
}

void WaitLines::advance(const Ecu& key) {
  Line* line = find(key);
  if (line == nullptr) {
    return;
  }
  const std::shared_ptr<Ecu> ecu = line->ecu;
  const Clock::time_point now = m_now();
  bool changed = false;
  for (const auto& client : line->waiters.drop_silent(now)) {
    LAPI_LOG(INFO, g_log) << "[" << ecu->m_name << "] " << client
                          << " dropped from the line: no wait request for more than "
                          << protocol::kTokenTimeout.count() / 1000 << " s";
    changed = true;
  }
  const bool free = ecu->holder().empty() || now - ecu->lease_start() > protocol::kTokenTimeout;
  std::optional<WaitLine::Waiter> granted;
  if (free && !ecu->request_active() && !line->waiters.empty()) {
    WaitLine::Waiter next = line->waiters.pop_front();
    if (ecu->acquire_token(next.client)) {
      LAPI_LOG(INFO, g_log) << "[" << ecu->m_name << "] Token handed to " << next.client
                            << ", first in line";
      granted = std::move(next);
    }
    changed = true;
  }
  if (changed) {
    ecu->line_changed();
    ecu->settle();
  }
  if (granted) {
    push_grant(*granted);
  }

  if (line->waiters.empty()) {
    m_deadlines.set(ecu.get(), line->due, Deadlines::kNever);
    m_lines.erase(ecu.get());
    return;
  }
  Clock::time_point due = line->waiters.next_silence();
  if (!ecu->holder().empty() && !ecu->request_active()) {
    due = std::min(due, ecu->lease_start() + protocol::kTokenTimeout + std::chrono::nanoseconds(1));
  }
  m_deadlines.set(ecu.get(), line->due, due);
}

void WaitLines::push_grant(const WaitLine::Waiter& waiter) {
  ecu::lapi::com::Message msg = protocol::response_frame(Response::ACQUIRED, waiter.topic);
  if (msg.payload.empty()) {
    LAPI_LOG(ERROR, g_log) << "Unable to serialize grant for " << waiter.client;
    return;
  }
  msg.qos = protocol::kQos;
  (void)m_client->publish(protocol::response_topic(waiter.client), msg);
}

}  // namespace tokard
