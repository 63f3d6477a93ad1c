// The token protocol spoken over a transport: requests sent, answers waited
// for, the ledger kept under one lock. Threads: any thread asks; the
// transport's delivery thread hands in what arrives (message()); the refresh
// thread calls refresh() and report(). Every send happens under the lock,
// so a renewal never follows the release of its token; nobody waits for the
// delivery thread while holding it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "client/ledger.h"
#include "com/protocol.h"
#include "lapi/com/message.h"
#include "lapi/com/transport.h"
#include "tokard/token_client.h"

namespace tokard::client {

struct SessionTiming {
  std::chrono::milliseconds answer_timeout{2000};
  std::chrono::milliseconds refresh_period{3000};
};

class Session {
 public:
  using Clock = std::chrono::steady_clock;
  using LostHandler = TokenClient::LostHandler;
  struct Lost {
    std::string topic;
    AcquireResult why;
  };

  Session(std::string client_name, SessionTiming timing, Ledger::Now now = Clock::now);
  virtual ~Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Requests go out on `transport` from now on; until then every request
  // is NoAnswer or NotConnected. Empty detaches it.
  void attach(std::shared_ptr<ecu::lapi::com::ITransportClient> transport);
  // Called when the refresh thread has a loss to report.
  void on_loss(std::function<void()> wake);

  // A message on the response topic or tokard's state topic.
  void message(const std::string& topic, const ecu::lapi::com::Message& msg);

  [[nodiscard]] AcquireResult acquire(const std::string& topic, Ledger::Kind kind);
  [[nodiscard]] AcquireResult wait_for_token(const std::string& topic, Clock::time_point deadline);
  [[nodiscard]] std::error_code release(const std::string& topic);
  // Releases every held token; for the end of the connection.
  void release_all();

  [[nodiscard]] bool holds(const std::string& topic) const;
  [[nodiscard]] std::optional<Clock::time_point> granted_at(const std::string& topic) const;
  void on_token_lost(LostHandler handler);
  void interrupt();
  [[nodiscard]] TokardState tokard_state() const { return m_state; }

  // One round of the refresh thread: held tokens that may have run out are
  // lost, the others renewed.
  void refresh();
  // Hands every loss noted since the last call to the lost handler.
  void report();

 private:
  bool send(const char* on, protocol::Request::Action action, const std::string& topic);
  AcquireResult ask(const std::string& topic, Ledger::Kind kind, std::chrono::milliseconds timeout);
  std::optional<AcquireResult> await(Ledger::Ticket ticket, Clock::time_point asked,
                                     std::chrono::milliseconds timeout,
                                     std::unique_lock<std::mutex>& lock);
  std::optional<AcquireResult> join(const std::string& topic, Clock::time_point deadline,
                                    std::unique_lock<std::mutex>& lock);
  AcquireResult wait_in_line(const std::string& topic, Clock::time_point deadline,
                             std::unique_lock<std::mutex>& lock);
  AcquireResult poll(const std::string& topic, Clock::time_point deadline);

  const std::string m_client_name;
  const SessionTiming m_timing;

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;  // an answer, a state, or interrupt()
  Ledger m_ledger;
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_transport;
  std::vector<Lost> m_lost;
  LostHandler m_lost_handler;
  std::function<void()> m_wake;
  std::atomic<bool> m_interrupted{false};
  std::atomic<TokardState> m_state{TokardState::Unknown};
};

}  // namespace tokard::client
