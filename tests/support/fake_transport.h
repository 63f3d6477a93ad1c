// A transport that records subscriptions and publishes and hands messages to
// the observers of a topic synchronously, as the delivery thread would, with
// the broker's wildcard matching.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lapi/com/observer_registry.h"
#include "lapi/com/topic_check.h"
#include "lapi/com/transport.h"

namespace tokard::test {

class FakeTransportClient : public ecu::lapi::com::ITransportClient {
 public:
  using Message = ecu::lapi::com::Message;
  using Observer = std::shared_ptr<ecu::lapi::com::ISubscriptionObserver>;
  struct Call {
    std::string op, topic;  // op: "subscribe" or "unsubscribe"
    int qos;
    const ecu::lapi::com::ISubscriptionObserver*
        observer;  // not owned: the log must not keep observers alive
  };
  struct Published {
    std::string topic;
    Message msg;
  };

  bool connect() override { return connected = true; }
  void disconnect() override { connected = false; }
  bool is_connected() const override { return connected; }
  bool publish(const std::string& topic, const Message& msg) override {
    published.push_back({topic, msg});
    return true;
  }
  std::size_t subscription_count() const override { return m_registry.size(); }
  bool subscribe(const std::string& topic, int qos, Observer observer) override {
    calls.push_back({"subscribe", topic, qos, observer.get()});
    if (!observer || qos < 0 || qos > 2 || !ecu::lapi::com::is_topic_filter(topic)) {
      return false;
    }
    auto& list = observers[topic];
    if (std::find(list.begin(), list.end(), observer) == list.end()) {
      list.push_back(observer);
    }
    static_cast<void>(m_registry.add(topic, qos, std::move(observer)));
    return true;
  }
  bool unsubscribe(const std::string& topic, Observer observer) override {
    calls.push_back({"unsubscribe", topic, 0, observer.get()});
    if (!m_registry.remove(topic, observer).observer) {
      return false;
    }
    auto& list = observers[topic];
    list.erase(std::find(list.begin(), list.end(), observer));
    if (list.empty()) {
      observers.erase(topic);
    }
    return true;
  }
  const std::string& client_id() const override { return id; }
  bool is_running() const override { return running; }
  void start() override { running = true; }
  void stop() override { running = false; }
  bool set_will(const std::string& /*topic*/, const Message& /*msg*/) override { return true; }
  void on_connected(std::function<void()> callback) override {
    connected_callback = std::move(callback);
  }

  // Hands `msg` to every observer whose filter matches `topic`, each once.
  void deliver(const std::string& topic, const Message& msg) {
    std::vector<Observer> found;  // a copy: observers may (un)subscribe while called
    m_registry.observers_of(topic, found);
    for (const auto& observer : found) {
      observer->message(topic, msg);
    }
  }
  // "subscribe rt/ECU1" for each recorded call.
  std::vector<std::string> call_log() const {
    std::vector<std::string> out;
    for (const auto& c : calls) {
      out.push_back(c.op + " " + c.topic);
    }
    return out;
  }

  std::string id = "fake";
  std::function<void()> connected_callback;
  bool connected = false, running = false;
  std::vector<Call> calls;
  std::vector<Published> published;
  // The observers of each filter, as subscribed. Read-only: deliver() and
  // subscription_count() are the way in.
  std::map<std::string, std::vector<Observer>> observers;

 private:
  ecu::lapi::com::ObserverRegistry m_registry;
};

}  // namespace tokard::test
