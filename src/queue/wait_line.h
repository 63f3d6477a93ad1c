#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "com/protocol.h"

namespace tokard {

// One ECU's line of waiting clients, first come first served, at most
// protocol::kMaxWaiters long. A waiter that has not asked again for more
// than the token time-out is silent and is dropped.
class WaitLine {
 public:
  using Clock = std::chrono::steady_clock;
  struct Waiter {
    std::string client;
    std::string topic;  // the request topic it named, named back in its grant
    Clock::time_point asked;
  };
  enum class Join { Queued, Repeated, Full };

  virtual ~WaitLine() = default;

  // Queues `client` at the end, or, in line already, keeps its place and
  // notes the request. Full: not queued.
  [[nodiscard]] Join join(const std::string& client, const std::string& topic,
                          Clock::time_point now);
  // False when `client` was not in line.
  [[nodiscard]] bool leave(const std::string& client);
  // Removes the silent waiters; their names, first first.
  std::vector<std::string> drop_silent(Clock::time_point now);
  Waiter pop_front();

  bool empty() const { return m_waiters.empty(); }
  std::size_t size() const { return m_waiters.size(); }
  // When the next waiter turns silent; max() for an empty line.
  Clock::time_point next_silence() const;
  std::vector<std::string> clients() const;

 private:
  std::vector<Waiter> m_waiters;
};

}  // namespace tokard
