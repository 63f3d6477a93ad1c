// What ends a command that runs until told: a stop signal (SIGINT,
// SIGTERM), the token's loss, or the end of hold's COMMAND. Set from the
// signal thread, the client's refresh thread and the reaper; waited on by
// the main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "stop_signals.h"
#include "tokard/token_client.h"

namespace tokctl {

class Ending {
 public:
  using Clock = std::chrono::steady_clock;
  using Result = tokard::client::AcquireResult;

  Ending() = default;
  virtual ~Ending() = default;
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

  void stop() {
    change([this] { m_stopped = true; });
  }
  void lose(Result why) {
    change([this, why] { m_lost = why; });
  }
  void program_ended() {
    change([this] { m_program_ended = true; });
  }

  bool stopped() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopped;
  }
  std::optional<Result> lost() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lost;
  }
  bool program_has_ended() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_program_ended;
  }

  // Until a stop or a loss.
  void wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_stopped || m_lost.has_value(); });
  }
  // How many changes there have been: read it before looking at the state,
  // so that a change after the look ends the wait that follows.
  unsigned changes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_changes;
  }
  // Until a change after `seen` or `deadline`; false at the deadline.
  bool wait_until(Clock::time_point deadline, unsigned seen) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, deadline, [&] { return m_changes != seen; });
  }

 private:
  template <typename F>
  void change(F&& apply) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      apply();
      ++m_changes;
    }
    m_changed.notify_all();
  }

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  unsigned m_changes = 0;
  bool m_stopped = false;
  std::optional<Result> m_lost;
  bool m_program_ended = false;
};

// Stop signals, started on `ending`: blocks SIGINT and SIGTERM first, so
// construct it before any other thread exists.
class StopOn : public StopSignals {
 public:
  explicit StopOn(Ending& ending, std::function<void()> also = {}) {
    start([&ending, also = std::move(also)](int) {
      ending.stop();
      if (also) {
        also();
      }
    });
  }
};

}  // namespace tokctl
