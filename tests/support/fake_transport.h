#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lapi/com/transport.h"

namespace tokard::test {

// Records what is done to the transport and delivers messages synchronously
// to the observers of a topic.
class FakeTransportClient : public ecu::lapi::com::ITransportClient {
 public:
  struct Call {
    std::string op;  // "subscribe" or "unsubscribe"
    std::string topic;
    int qos;
    std::shared_ptr<ecu::lapi::com::ISubscriptionObserver> observer;
  };
  struct Published {
    std::string topic;
    ecu::lapi::com::Message msg;
  };

  bool connect() override { return connected = true; }
  void disconnect() override { connected = false; }
  bool is_connected() const override { return connected; }
  bool publish(const std::string& topic, const ecu::lapi::com::Message& msg) override {
    published.push_back({topic, msg});
    return true;
  }
  std::size_t subscription_count() const override { return observers.size(); }
  bool subscribe(const std::string& topic, int qos,
                 std::shared_ptr<ecu::lapi::com::ISubscriptionObserver> observer) override {
    calls.push_back({"subscribe", topic, qos, observer});
    observers[topic].push_back(observer);
    return true;
  }
  bool unsubscribe(const std::string& topic,
                   std::shared_ptr<ecu::lapi::com::ISubscriptionObserver> observer) override {
    calls.push_back({"unsubscribe", topic, 0, observer});
    auto& list = observers[topic];
    for (auto it = list.begin(); it != list.end(); ++it) {
      if (*it == observer) {
        list.erase(it);
        break;
      }
    }
    if (list.empty()) {
      observers.erase(topic);
    }
    return true;
  }
  const std::string& client_id() const override { return id; }
  bool is_running() const override { return running; }
  void start() override { running = true; }
  void stop() override { running = false; }

  // Hands `msg` to every observer of exactly `topic`, as the delivery would.
  void deliver(const std::string& topic, const ecu::lapi::com::Message& msg) {
    auto it = observers.find(topic);
    if (it == observers.end()) {
      return;
    }
    auto list = it->second;
    for (auto& observer : list) {
      observer->message(topic, msg);
    }
  }

  // "subscribe rt/ECU1" style summary of the recorded calls.
  std::vector<std::string> call_log() const {
    std::vector<std::string> out;
    for (const auto& c : calls) {
      out.push_back(c.op + " " + c.topic);
    }
    return out;
  }

  std::string id = "fake";
  bool connected = false;
  bool running = false;
  std::vector<Call> calls;
  std::vector<Published> published;
  std::map<std::string, std::vector<std::shared_ptr<ecu::lapi::com::ISubscriptionObserver>>> observers;
};

}  // namespace tokard::test
