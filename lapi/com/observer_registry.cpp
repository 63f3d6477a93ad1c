#include "lapi/com/observer_registry.h"

#include <algorithm>

#include "lapi/com/topic_check.h"

namespace ecu::lapi::com {

int ObserverRegistry::add(const std::string& filter, int qos, ObserverPtr observer) {
  auto [it, added] = m_filters.try_emplace(filter);
  Filter& entry = it->second;
  if (!entry.observers.contains(observer)) {
    entry.observers.add(std::move(observer));
  }
  if (added && is_wildcard(filter)) {
    m_wildcards.push_back(filter);
  }
  if (!added && qos <= entry.qos) {
    return kNothingToSend;
  }
  entry.qos = std::max(entry.qos, qos);
  return entry.qos;
}

ObserverRegistry::Removed ObserverRegistry::remove(const std::string& filter,
                                                   const ObserverPtr& observer) {
  Removed removed;
  const auto it = m_filters.find(filter);
  if (it == m_filters.end()) {
    return removed;
  }
  removed.observer = it->second.observers.remove(observer);
  if (!removed.observer || !it->second.observers.empty()) {
    return removed;
  }
  m_filters.erase(it);
  m_wildcards.erase(std::remove(m_wildcards.begin(), m_wildcards.end(), filter), m_wildcards.end());
  removed.last = true;
  return removed;
}

void ObserverRegistry::observers_of(const std::string& topic,
                                    std::vector<ObserverPtr>& found) const {
  found.clear();
  if (const auto it = m_filters.find(topic); it != m_filters.end()) {
    it->second.observers.collect(found);
  }
  for (const auto& filter : m_wildcards) {
    if (topic_matches(filter, topic)) {
      m_filters.at(filter).observers.collect(found);
    }
  }
}

bool ObserverRegistry::ObserverList::contains(const ObserverPtr& observer) const {
  return (m_first && m_first == observer) ||
         (m_more && std::find(m_more->begin(), m_more->end(), observer) != m_more->end());
}

void ObserverRegistry::ObserverList::add(ObserverPtr observer) {
  if (!m_first) {
    m_first = std::move(observer);
    return;
  }
  if (!m_more) {
    m_more = std::make_unique<std::vector<ObserverPtr>>();
  }
  m_more->push_back(std::move(observer));
}

ObserverRegistry::ObserverPtr ObserverRegistry::ObserverList::remove(const ObserverPtr& observer) {
  ObserverPtr removed;
  if (m_first && m_first == observer) {
    removed = std::move(m_first);
    if (m_more) {
      m_first = std::move(m_more->front());
      m_more->erase(m_more->begin());
    }
  } else if (m_more) {
    const auto pos = std::find(m_more->begin(), m_more->end(), observer);
    if (pos != m_more->end()) {
      removed = std::move(*pos);
      m_more->erase(pos);
    }
  }
  if (m_more && m_more->empty()) {
    m_more.reset();
  }
  return removed;
}

void ObserverRegistry::ObserverList::collect(std::vector<ObserverPtr>& found) const {
  const auto take = [&found](const ObserverPtr& observer) {
    if (std::find(found.begin(), found.end(), observer) == found.end()) {
      found.push_back(observer);
    }
  };
  if (m_first) {
    take(m_first);
  }
  if (m_more) {
    std::for_each(m_more->begin(), m_more->end(), take);
  }
}

}  // namespace ecu::lapi::com
