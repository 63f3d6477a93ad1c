// Packet ids sent and not yet acknowledged. An acknowledgement may come
// before the sender has recorded the id; it then leaves a -1 that the
// sender's +1 cancels.
#pragma once

#include <algorithm>
#include <mutex>
#include <unordered_map>

namespace ecu::lapi::com {

class Unacked {
 public:
  void sent(int mid) { change(mid, 1); }
  void acknowledged(int mid) { change(mid, -1); }
  [[nodiscard]] bool empty() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::none_of(m_ids.begin(), m_ids.end(), [](const auto& id) { return id.second > 0; });
  }
  void clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_ids.clear();
  }

 private:
  void change(int mid, int by) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if ((m_ids[mid] += by) == 0) {
      m_ids.erase(mid);
    }
  }
  mutable std::mutex m_mutex;
  std::unordered_map<int, int> m_ids;
};

}  // namespace ecu::lapi::com
