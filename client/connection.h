// A session's connection to the broker and the thread that renews its
// tokens. Made by open(); its end releases every held token, then closes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "client/bus.h"
#include "client/session.h"

namespace tokard::client {

class Connection {
 public:
  // Subscribes `response_topic` and tokard's state for `session`, connects,
  // attaches the transport to the session and starts renewing every
  // `refresh_period`. Empty, with `error` set, when the bus does not open.
  [[nodiscard]] static std::unique_ptr<Connection> open(
      Session& session, const BusSettings& settings, const std::string& response_topic,
      std::chrono::milliseconds refresh_period, std::chrono::milliseconds timeout, BusError& error);
  virtual ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

 private:
  class Observer;
  Connection(Session& session, std::string response_topic,
             std::chrono::milliseconds refresh_period);
  void refresh_loop();
  void wake();

  Session& m_session;
  const std::string m_response_topic;
  const std::chrono::milliseconds m_refresh_period;
  std::shared_ptr<Observer> m_observer;
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_transport;

  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_lost = false;
  bool m_stopping = false;
  std::thread m_refresh_thread;
};

}  // namespace tokard::client
