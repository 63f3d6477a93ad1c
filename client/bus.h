// A transport client that is connected and subscribed, or the reason it is
// not: what the token client and tokctl's bus commands both start with.
// Not installed; its users link tokard_client.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lapi/com/transport.h"

namespace tokard::client {

// Every field is the caller's: the defaults are those of its own options.
struct BusSettings {
  std::string host;
  int port = 0;
  std::string mqtt_client_id;
  // The broker account; without a username the client connects anonymously.
  std::string username;
  std::string password;
};

enum class BusError {
  None,
  InvalidBroker,  // empty host, or port outside the port range
  InvalidTopic,   // one of the topics is not a topic filter
  Unreachable,    // no acknowledged connection within the time-out
};

struct Bus {
  std::shared_ptr<ecu::lapi::com::ITransportClient> transport;  // empty unless error is None
  BusError error = BusError::None;
};

// Creates a transport for `settings`, subscribes every one of `topics` for
// `observer`, connects, starts the delivery and waits up to `timeout` until
// the broker has acknowledged the subscriptions. `on_connected` runs on the
// delivery thread after that connect and after every later one.
[[nodiscard]] Bus open_bus(const BusSettings& settings, const std::vector<std::string>& topics,
                           const std::shared_ptr<ecu::lapi::com::ISubscriptionObserver>& observer,
                           std::chrono::milliseconds timeout,
                           std::function<void()> on_connected = {});

}  // namespace tokard::client
