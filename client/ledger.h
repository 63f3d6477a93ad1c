// What the client knows of its tokens: the requests it has sent, the answers
// they got, the tokens it holds and since when, its places in ECUs' lines.
// It decides what an answer means (a grant to keep, a renewal, a loss, a
// grant nobody asked for) and when a held token may have run out. No
// transport, no locks, no threads: its owner serialises the calls, and the
// clock is injected.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tokard/token_client.h"

namespace tokard::client {

class Ledger {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;
  using Now = std::function<Time()>;
  using Ticket = std::uint64_t;

  // Why a request is sent; Keep and Once are waited for by an asker.
  enum class Kind {
    Keep,   // acquire(): a grant is held and renewed
    Once,   // acquire_once(): a grant is neither held nor given back
    Line,   // a wait request: a grant, now or pushed later, is held
    Renew,  // the refresh of a held token, or a repeated wait request
  };

  // What an answer asks of the client besides noting it.
  enum class Step {
    None,
    GiveBack,  // a grant nobody waits for: release it at once
    Lost,      // a held token was refused: report it
  };

  explicit Ledger(Now now = Clock::now);

  // Notes a request about to be sent. The ticket of an asker stays open
  // until settled(); a Renew is never waited for.
  Ticket asked(const std::string& topic, Kind kind);
  // The first answer on the ticket's topic since it was asked, if any.
  [[nodiscard]] std::optional<AcquireResult> answer_to(Ticket ticket) const;
  // The asker waits no more; a grant arriving for it from now on is given back.
  void settled(Ticket ticket);

  // An answer from tokard on the response topic.
  [[nodiscard]] Step answered(const std::string& topic, AcquireResult result);

  // The client joined or left the ECU's line.
  void joined(const std::string& topic);
  void left(const std::string& topic);
  [[nodiscard]] bool in_line(const std::string& topic) const;

  // The client released the token: later grants for it are given back.
  void released(const std::string& topic);

  [[nodiscard]] bool holds(const std::string& topic) const;
  [[nodiscard]] std::optional<Time> granted_at(const std::string& topic) const;
  [[nodiscard]] std::vector<std::string> held() const;

  // Held tokens whose lease may have run out (no grant since kTokenTimeout
  // after granted_at): no longer held, returned to be reported as lost.
  [[nodiscard]] std::vector<std::string> expired();

 private:
  struct Record {
    std::deque<Time> unanswered;  // when each request still unanswered was sent
    std::optional<Time> last_answered;
    std::optional<Time> granted;  // set while held
    bool in_line = false;
    bool line_answered = false;  // an answer came since joining
  };
  struct Asker {
    std::string topic;
    Kind kind;
    std::optional<AcquireResult> answer;
  };

  Time credit(Record& record, AcquireResult result);
  bool awaited(const std::string& topic, Kind kind) const;
  void forget_if_idle(const std::string& topic);

  Now m_now;
  Ticket m_next_ticket = 1;
  std::map<std::string, Record> m_records;
  std::map<Ticket, Asker> m_askers;
};

}  // namespace tokard::client
