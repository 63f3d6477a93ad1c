// SIGINT and SIGTERM as an event: blocked in every thread, taken by one
// thread of their own with sigwait, which runs a callback. No handler code
// runs in signal context, so the callback may lock and notify.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace tokctl {

class StopSignals {
 public:
  // Blocks both signals in the calling thread, and so in every thread it
  // starts afterwards: construct before any other thread exists.
  StopSignals();
  // Unblocks nothing: the process ends soon after.
  virtual ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Starts waiting; `on_stop` runs once, on the waiting thread, with the
  // signal's number.
  void start(std::function<void(int)> on_stop);

 private:
  sigset_t m_set;
  std::thread m_thread;
  std::function<void(int)> m_on_stop;
  // Set before the destructor wakes the thread with a signal of its own.
  std::atomic<bool> m_closing{false};
};

}  // namespace tokctl
