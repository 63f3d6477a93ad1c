// The observers of every topic filter, and who a received message goes to.
// Not locked: the owner serialises every call.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "lapi/com/transport.h"

namespace ecu::lapi::com {

class ObserverRegistry {
 public:
  using ObserverPtr = std::shared_ptr<ISubscriptionObserver>;
  static constexpr int kNothingToSend = -1;

  // Adds the pair; a pair already there changes nothing. Returns the QoS the
  // broker must now be asked for (a new filter, or a higher QoS than any of
  // its observers asked for before), else kNothingToSend.
  [[nodiscard]] int add(const std::string& filter, int qos, ObserverPtr observer);
  struct Removed {
    ObserverPtr observer;  // the reference given up; empty when the pair was unknown
    bool last = false;     // the filter has no observer left and is gone
  };
  [[nodiscard]] Removed remove(const std::string& filter, const ObserverPtr& observer);

  // Replaces the contents of `found` with the observers a message on `topic`
  // goes to: those of the exact filter, then of each matching wildcard filter
  // in the order they were added, each observer once.
  void observers_of(const std::string& topic, std::vector<ObserverPtr>& found) const;
  // Filters with at least one observer.
  [[nodiscard]] std::size_t size() const { return m_filters.size(); }

  // Calls visit(filter, qos) for every filter.
  template <typename F>
  void for_each_filter(F&& visit) const {
    for (const auto& [filter, entry] : m_filters) {
      visit(filter, entry.qos);
    }
  }

 private:
  // The observers of one filter, in the order they subscribed. Nearly every
  // filter has exactly one; keeping it inline saves an allocation per filter.
  class ObserverList {
   public:
    [[nodiscard]] bool empty() const { return !m_first; }
    [[nodiscard]] bool contains(const ObserverPtr& observer) const;
    void add(ObserverPtr observer);
    // The reference given up; empty when `observer` was not in the list.
    [[nodiscard]] ObserverPtr remove(const ObserverPtr& observer);
    // Appends to `found` each observer not in it yet.
    void collect(std::vector<ObserverPtr>& found) const;

   private:
    ObserverPtr m_first;
    std::unique_ptr<std::vector<ObserverPtr>> m_more;  // only while there are two or more
  };
  struct Filter {
    int qos = 0;  // the highest QoS any of its observers asked for
    ObserverList observers;
  };

  std::unordered_map<std::string, Filter> m_filters;
  // The wildcard filters again, in the order they were added: each received
  // message is matched against this short list only.
  std::vector<std::string> m_wildcards;
};

}  // namespace ecu::lapi::com
