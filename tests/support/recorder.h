#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "lapi/com/transport.h"

namespace tokard::test {

// An observer that keeps every message it is handed, for tests to wait on.
class Recorder : public ecu::lapi::com::ISubscriptionObserver {
 public:
  struct Received {
    std::string topic;
    ecu::lapi::com::Message msg;
  };

  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_received.push_back({topic, msg});
    }
    m_changed.notify_all();
  }

  std::size_t count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received.size();
  }

  std::vector<Received> received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
  }

  // Waits for a message on `topic` beyond the first `skip` messages.
  bool wait_for(const std::string& topic, std::size_t skip, Received& out,
                std::chrono::milliseconds limit = std::chrono::seconds(2)) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] {
      for (std::size_t i = skip; i < m_received.size(); ++i) {
        if (m_received[i].topic == topic) {
          out = m_received[i];
          return true;
        }
      }
      return false;
    });
  }

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Received> m_received;
};

}  // namespace tokard::test
