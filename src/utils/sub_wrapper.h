#pragma once

#include <string>

#include "lapi/com/transport.h"

namespace tokard::utils {

// Registers an object owned by value elsewhere as an observer: forwards every
// message to its target, which must unsubscribe the wrapper before it dies.
class SubWrapper : public ecu::lapi::com::ISubscriptionObserver {
 public:
  explicit SubWrapper(ecu::lapi::com::ISubscriptionObserver* target) : m_target(target) {}
  ~SubWrapper() override = default;

  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override {
    m_target->message(topic, msg);
  }

 private:
  ecu::lapi::com::ISubscriptionObserver* m_target;
};

}  // namespace tokard::utils
