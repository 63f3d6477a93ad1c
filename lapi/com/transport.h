// The transport client on the internal MQTT broker.
//
// Threading contract:
// - `start` runs one delivery thread; every `message` call of every observer
//   happens on it, one at a time, never overlapping.
// - From inside `message` an observer may call `subscribe`, `unsubscribe` and
//   `publish` of the same client; they do not block on the delivery.
// - `message` is called with no lock of the client or its MQTT library held,
//   so an observer may take a lock that another thread holds while it calls
//   `publish`.
// - `stop` ends the delivery and joins its thread, promptly whatever state the
//   connection is in; no observer is called after `stop` returns. `stop` must
//   not be called from inside `message`.
// - `subscribe` and `unsubscribe` are accepted at any time, before `connect`
//   too. Subscriptions are remembered and sent again on every (re)connect.
// - `publish`, `subscribe` and `unsubscribe` may be called from any thread.
// - The client holds shared references to its observers until they are
//   unsubscribed or the client is destroyed.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "lapi/com/message.h"
#include "lapi/config/configuration.h"

namespace ecu::lapi::com {

class ISubscriptionObserver {
 public:
  virtual ~ISubscriptionObserver() = default;
  virtual void message(const std::string& topic, const Message& msg) = 0;
};

class ITransportClient {
 public:
  virtual ~ITransportClient() = default;

  // Starts connecting to the broker without waiting for it. A broker that is
  // not there yet is retried with back-off once the delivery runs. False only
  // when the connection parameters are unusable.
  [[nodiscard]] virtual bool connect() = 0;
  // Closes the connection; no reconnect follows.
  virtual void disconnect() = 0;
  virtual bool is_connected() const = 0;

  // Sends msg.payload with msg.qos. False when the library or the broker
  // refuses it (bad topic, no memory); the message is then dropped.
  [[nodiscard]] virtual bool publish(const std::string& topic, const Message& msg) = 0;
  // Topics with at least one observer.
  virtual std::size_t subscription_count() const = 0;

  // Adds `observer` for `topic` (MQTT wildcards allowed). False when the
  // topic is not a valid subscription.
  [[nodiscard]] virtual bool subscribe(const std::string& topic, int qos,
                                       std::shared_ptr<ISubscriptionObserver> observer) = 0;
  // Removes that pair; the broker subscription goes with the topic's last
  // observer.
  [[nodiscard]] virtual bool unsubscribe(const std::string& topic,
                                         std::shared_ptr<ISubscriptionObserver> observer) = 0;

  virtual const std::string& client_id() const = 0;
  virtual bool is_running() const = 0;

  virtual void start() = 0;
  virtual void stop() = 0;

  // The message the broker publishes on `topic` when the connection ends
  // without a DISCONNECT (MQTT 3.1.1, 3.1.2.5); msg.extra_flag retains it.
  // Call before `connect`. False when the topic or payload is not usable.
  [[nodiscard]] virtual bool set_will(const std::string& topic, const Message& msg) = 0;
  // `callback` runs on the delivery thread after every accepted connect,
  // once the broker has acknowledged every SUBSCRIBE sent at that connect
  // (right after the CONNACK when nothing is subscribed): from then on, what
  // is published on a subscribed topic reaches its observers. Nothing that
  // arrives on that connection reaches them before the callback has run. Not run for a
  // connect lost before the acknowledgements. Call before `start`.
  virtual void on_connected(std::function<void()> callback) = 0;
};

enum TransportType : int {
  INTERNAL_MQTT = 0,
};

// A client for the broker at config "host":"port" with id "client_name".
// Returns an empty pointer for a transport type it does not know.
std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& config,
                                                TransportType type);

}  // namespace ecu::lapi::com
