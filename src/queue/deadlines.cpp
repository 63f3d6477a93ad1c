#include "queue/deadlines.h"

#include <vector>

namespace tokard {

Deadlines::Deadlines(std::mutex& lock, std::function<void(Key)> due, bool threaded)
    : m_lock(lock), m_due(std::move(due)), m_threaded(threaded) {}

Deadlines::~Deadlines() { stop(); }

void Deadlines::set(Key key, Clock::time_point& slot, Clock::time_point when) {
  if (slot == when) {
    return;
  }
  if (slot != kNever) {
    m_order.erase({slot, key});
  }
  slot = when;
  if (when == kNever) {
    return;
  }
  const bool earliest = m_order.empty() || when < m_order.begin()->first;
  m_order.emplace(when, key);
  if (m_threaded && !m_thread.joinable() && !m_stopping) {
    m_thread = std::thread(&Deadlines::watch, this);
  } else if (earliest) {
    m_wake.notify_one();
  }
}

void Deadlines::run_due(Clock::time_point now) {
  std::vector<Key> due;
  for (auto it = m_order.begin(); it != m_order.end() && it->first <= now; ++it) {
    due.push_back(it->second);
  }
  for (Key key : due) {
    m_due(key);
  }
}

void Deadlines::stop() {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_stopping = true;
  }
  m_wake.notify_one();
  if (m_thread.joinable()) {
    m_thread.join();
  }
}

void Deadlines::watch() {
  std::unique_lock<std::mutex> lock(m_lock);
  while (!m_stopping) {
    if (m_order.empty()) {
      m_wake.wait(lock);
    } else {
      // A copy: the entry may be erased while the wait has the lock released.
      const Clock::time_point next = m_order.begin()->first;
      m_wake.wait_until(lock, next);
    }
    if (!m_stopping) {
      run_due(Clock::now());
    }
  }
}

}  // namespace tokard
