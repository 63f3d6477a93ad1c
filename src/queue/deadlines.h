#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

namespace tokard {

// Calls back when deadlines pass, one per key, from a thread of its own that
// starts with the first deadline ever set and sleeps until the earliest one.
// Everything but stop() is called with `lock` held, and the callback runs
// with it held: the callback's work is serialised with the caller's.
class Deadlines {
 public:
  using Clock = std::chrono::steady_clock;
  using Key = const void*;
  static constexpr Clock::time_point kNever = Clock::time_point::max();

  // `due` must move the key's deadline past the time it is given, or clear
  // it. Without `threaded`, no thread runs: the caller calls run_due().
  Deadlines(std::mutex& lock, std::function<void(Key)> due, bool threaded = true);
  virtual ~Deadlines();
  Deadlines(const Deadlines&) = delete;
  Deadlines& operator=(const Deadlines&) = delete;

  // Moves the deadline of `key` from `slot` (kNever: none) to `when`
  // (kNever: clears it) and records it in `slot`.
  void set(Key key, Clock::time_point& slot, Clock::time_point when);
  // Calls back every key due at `now`, each once.
  void run_due(Clock::time_point now);
  // Ends the thread; without the lock. No callback runs after it returns.
  void stop();
  bool watching() const { return m_thread.joinable(); }

 private:
  void watch();

  std::mutex& m_lock;
  std::function<void(Key)> m_due;
  const bool m_threaded;
  std::set<std::pair<Clock::time_point, Key>> m_order;
  std::condition_variable m_wake;
  bool m_stopping = false;
  std::thread m_thread;
};

}  // namespace tokard
