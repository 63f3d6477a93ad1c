#include "queue/wait_line.h"

#include <algorithm>

namespace tokard {
namespace {

bool silent(const WaitLine::Waiter& waiter, WaitLine::Clock::time_point now) {
  return now - waiter.asked > protocol::kTokenTimeout;
}

}  // namespace

WaitLine::Join WaitLine::join(const std::string& client, const std::string& topic,
                              Clock::time_point now) {
  const auto found = std::find_if(m_waiters.begin(), m_waiters.end(),
                                  [&](const Waiter& w) { return w.client == client; });
  if (found != m_waiters.end()) {
    found->topic = topic;
    found->asked = now;
    return Join::Repeated;
  }
  if (m_waiters.size() >= protocol::kMaxWaiters) {
    return Join::Full;
  }
  m_waiters.push_back({client, topic, now});
  return Join::Queued;
}

bool WaitLine::leave(const std::string& client) {
  const auto found = std::find_if(m_waiters.begin(), m_waiters.end(),
                                  [&](const Waiter& w) { return w.client == client; });
  if (found == m_waiters.end()) {
    return false;
  }
  m_waiters.erase(found);
  return true;
}

std::vector<std::string> WaitLine::drop_silent(Clock::time_point now) {
  std::vector<std::string> dropped;
  for (const auto& waiter : m_waiters) {
    if (silent(waiter, now)) {
      dropped.push_back(waiter.client);
    }
  }
  if (!dropped.empty()) {
    m_waiters.erase(std::remove_if(m_waiters.begin(), m_waiters.end(),
                                   [now](const Waiter& w) { return silent(w, now); }),
                    m_waiters.end());
  }
  return dropped;
}

WaitLine::Waiter WaitLine::pop_front() {
  Waiter first = std::move(m_waiters.front());
  m_waiters.erase(m_waiters.begin());
  return first;
}

WaitLine::Clock::time_point WaitLine::next_silence() const {
  Clock::time_point earliest = Clock::time_point::max();
  for (const auto& waiter : m_waiters) {
    earliest = std::min(earliest, waiter.asked);
  }
  return earliest == Clock::time_point::max()
             ? earliest
             : earliest + protocol::kTokenTimeout + std::chrono::nanoseconds(1);
}

std::vector<std::string> WaitLine::clients() const {
  std::vector<std::string> out;
  out.reserve(m_waiters.size());
  for (const auto& waiter : m_waiters) {
    out.push_back(waiter.client);
  }
  return out;
}

}  // namespace tokard
