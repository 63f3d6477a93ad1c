#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "com/protocol.h"
#include "ecu/ecu.h"
#include "ecu/ecu_line.h"
#include "lapi/com/transport.h"
#include "queue/deadlines.h"
#include "queue/wait_line.h"

namespace tokard {

// The lines of clients waiting for ECU tokens, and the hand-over: whenever
// a token with clients in line is free (released, freed by a signal group
// that is not valid, or its lease has run out) it goes to the first client
// still asking, and its grant is pushed to that client. An ECU with nobody
// in line has no line here and costs nothing.
//
// Threading contract. Record work happens on the transport's delivery
// thread (requests, signal groups) and, for ECUs with clients in line, on
// the lease watch's thread, which hands a token on when its lease runs out
// and drops silent waiters. Both take mutex() around all of it: the request
// handler around deciding a request, Ecu::message around its state change,
// the watch around each deadline. The watch starts when the first client
// ever joins a line; until then the lock is never contended. Every other
// operation here expects the caller to hold it.
class WaitLines : public EcuLine {
 public:
  using Clock = WaitLine::Clock;
  using Result = protocol::Response::Result;

  // `now` is for tests that move time themselves: with it, no thread runs
  // and run_due() stands in for the watch.
  explicit WaitLines(std::shared_ptr<ecu::lapi::com::ITransportClient> client,
                     std::function<Clock::time_point()> now = nullptr);
  ~WaitLines() override;
  WaitLines(const WaitLines&) = delete;
  WaitLines& operator=(const WaitLines&) = delete;

  std::mutex& mutex() override { return m_mutex; }
  void changed(Ecu& ecu) override;
  std::vector<std::string> waiters(const Ecu& ecu) const override;

  // A wait request: ACQUIRED when `client` holds the token now (granted at
  // once, nobody ahead, or renewed), else BUSY, with `client` in line
  // unless the line is full.
  Result join(const std::shared_ptr<Ecu>& ecu, const std::string& client, const std::string& topic);
  void leave(Ecu& ecu, const std::string& client);
  // Before a plain acquire: a token whose lease ran out goes to the first in
  // line; true when `client`, not the holder, must wait behind others.
  [[nodiscard]] bool refuses(Ecu& ecu, const std::string& client);

  // Ends the watch; without the lock.
  void stop() { m_deadlines.stop(); }
  void run_due() { m_deadlines.run_due(m_now()); }
  bool watching() const { return m_deadlines.watching(); }

 private:
  struct Line {
    std::shared_ptr<Ecu> ecu;
    WaitLine waiters;
    Clock::time_point due = Deadlines::kNever;
  };

  Line* find(const Ecu& ecu);
  // Drops silent waiters, hands a free token to the first in line, and plans
  // the line's next deadline; an empty line is removed.
  void advance(const Ecu& ecu);
  void push_grant(const WaitLine::Waiter& waiter);

  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
  std::function<Clock::time_point()> m_now;
  std::unordered_map<const Ecu*, Line> m_lines;
  std::mutex m_mutex;
  Deadlines m_deadlines;
};

}  // namespace tokard
