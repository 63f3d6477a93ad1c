#include "connection.h"

#include <utility>

#include "com/protocol.h"

namespace tokard::client {

class Connection::Observer : public ecu::lapi::com::ISubscriptionObserver {
 public:
  explicit Observer(Session& session) : m_session(session) {}
  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override {
    m_session.message(topic, msg);
  }

 private:
  Session& m_session;  // outlives every delivery: the transport stops first
};

std::unique_ptr<Connection> Connection::open(Session& session, const BusSettings& settings,
                                             const std::string& response_topic,
                                             std::chrono::milliseconds refresh_period,
                                             std::chrono::milliseconds timeout, BusError& error) {
  std::unique_ptr<Connection> made(new Connection(session, response_topic, refresh_period));
  // Subscribed before the connection exists, so the broker has them before
  // the first request goes out.
  Bus bus = open_bus(settings, {response_topic, protocol::kStateTopic}, made->m_observer, timeout);
  error = bus.error;
  if (!bus.transport) {
    return nullptr;
  }
  made->m_transport = std::move(bus.transport);
  session.attach(made->m_transport);
  session.on_loss([connection = made.get()] { connection->wake(); });
  made->m_refresh_thread = std::thread([connection = made.get()] { connection->refresh_loop(); });
  return made;
}

Connection::Connection(Session& session, std::string response_topic,
                       std::chrono::milliseconds refresh_period)
    : m_session(session),
      m_response_topic(std::move(response_topic)),
      m_refresh_period(refresh_period),
      m_observer(std::make_shared<Observer>(session)) {}

Connection::~Connection() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  if (m_refresh_thread.joinable()) {
    m_refresh_thread.join();
  }
  m_session.on_loss({});
  if (!m_transport) {
    return;
  }
  m_session.release_all();
  m_session.attach(nullptr);
  (void)m_transport->unsubscribe(m_response_topic, m_observer);
  (void)m_transport->unsubscribe(protocol::kStateTopic, m_observer);
  m_transport->stop();
  // The last reference: the transport writes what is queued, the releases
  // included, before it closes the connection.
  m_transport.reset();
}

void Connection::wake() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lost = true;
  }
  m_wake.notify_all();
}

void Connection::refresh_loop() {
  using Clock = std::chrono::steady_clock;
  auto next_refresh = Clock::now() + m_refresh_period;
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stopping) {
    m_wake.wait_until(lock, next_refresh, [this] { return m_stopping || m_lost; });
    if (m_stopping) {
      break;
    }
    m_lost = false;
    const auto now = Clock::now();
    const bool due = now >= next_refresh;
    if (due) {
      next_refresh = now + m_refresh_period;
    }
    lock.unlock();
    if (due) {
      m_session.refresh();
    }
    m_session.report();
    lock.lock();
  }
}

}  // namespace tokard::client
