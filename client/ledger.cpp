#include "ledger.h"

#include <algorithm>
#include <utility>

#include "com/protocol.h"

namespace tokard::client {

Ledger::Ledger(Now now) : m_now(std::move(now)) {}

Ledger::Ticket Ledger::asked(const std::string& topic, Kind kind) {
  m_records[topic].unanswered.push_back(m_now());
  if (kind == Kind::Renew) {
    return 0;
  }
  m_askers[m_next_ticket] = {topic, kind, std::nullopt};
  return m_next_ticket++;
}

std::optional<AcquireResult> Ledger::answer_to(Ticket ticket) const {
  const auto it = m_askers.find(ticket);
  return it == m_askers.end() ? std::nullopt : it->second.answer;
}

void Ledger::settled(Ticket ticket) {
  const auto it = m_askers.find(ticket);
  if (it == m_askers.end()) {
    return;
  }
  const std::string topic = it->second.topic;
  m_askers.erase(it);
  forget_if_idle(topic);
}

Ledger::Step Ledger::answered(const std::string& topic, AcquireResult result) {
  Record& record = m_records[topic];
  const Time sent = credit(record, result);
  for (auto& entry : m_askers) {
    if (entry.second.topic == topic && !entry.second.answer) {
      entry.second.answer = result;
    }
  }
  Step step = Step::None;
  if (record.granted) {
    if (result == AcquireResult::Acquired) {
      // Each credit is a time before one grant or renewal; the lease runs
      // from the latest of them.
      record.granted = std::max(*record.granted, sent);
    } else {
      record.granted.reset();
      step = Step::Lost;
    }
  } else if (result == AcquireResult::Acquired) {
    if (record.in_line || awaited(topic, Kind::Keep)) {
      record.granted = sent;
      record.in_line = false;  // tokard took the client out of the line
    } else if (!awaited(topic, Kind::Once)) {
      // The answer to a renewal that crossed a release, or to an asker that
      // gave up: kept, it would block the ECU for others until it times out.
      step = Step::GiveBack;
    }
  }
  forget_if_idle(topic);
  return step;
}

// When the request was sent that this answer is to. tokard answers each
// client's requests in order, so answers go to the oldest request unanswered,
// except a grant pushed to a client in line, which answers nothing: it comes
// after every answer already received, maybe before those still outstanding.
Ledger::Time Ledger::credit(Record& record, AcquireResult result) {
  const Time now = m_now();
  // An answer lost (tokard restarted, the connection dropped) would credit
  // every later one a request early; tokard answers in milliseconds.
  while (!record.unanswered.empty() && now - record.unanswered.front() > protocol::kTokenTimeout) {
    record.unanswered.pop_front();
  }
  const bool pushed = record.in_line && record.line_answered && result == AcquireResult::Acquired;
  record.line_answered = record.in_line;
  if (pushed || record.unanswered.empty()) {
    return record.last_answered.value_or(now);
  }
  record.last_answered = record.unanswered.front();
  record.unanswered.pop_front();
  return *record.last_answered;
}

void Ledger::joined(const std::string& topic) {
  Record& record = m_records[topic];
  record.in_line = !record.granted;
  record.line_answered = false;
}

void Ledger::left(const std::string& topic) {
  const auto it = m_records.find(topic);
  if (it == m_records.end()) {
    return;
  }
  it->second.in_line = false;
  forget_if_idle(topic);
}

bool Ledger::in_line(const std::string& topic) const {
  const auto it = m_records.find(topic);
  return it != m_records.end() && it->second.in_line;
}

void Ledger::released(const std::string& topic) {
  const auto it = m_records.find(topic);
  if (it == m_records.end()) {
    return;
  }
  it->second.granted.reset();
  it->second.in_line = false;
  forget_if_idle(topic);
}

bool Ledger::holds(const std::string& topic) const { return granted_at(topic).has_value(); }

std::optional<Ledger::Time> Ledger::granted_at(const std::string& topic) const {
  const auto it = m_records.find(topic);
  return it == m_records.end() ? std::nullopt : it->second.granted;
}

std::vector<std::string> Ledger::held() const {
  std::vector<std::string> topics;
  for (const auto& entry : m_records) {
    if (entry.second.granted) {
      topics.push_back(entry.first);
    }
  }
  return topics;
}

std::vector<std::string> Ledger::expired() {
  const Time now = m_now();
  std::vector<std::string> topics;
  for (auto& entry : m_records) {
    auto& granted = entry.second.granted;
    if (granted && now - *granted > protocol::kTokenTimeout) {
      granted.reset();
      topics.push_back(entry.first);
    }
  }
  return topics;
}

bool Ledger::awaited(const std::string& topic, Kind kind) const {
  return std::any_of(m_askers.begin(), m_askers.end(), [&](const auto& entry) {
    return entry.second.topic == topic && entry.second.kind == kind;
  });
}

// Records are kept while they matter: a held token, a place in line, or
// requests whose answers are still to be matched.
void Ledger::forget_if_idle(const std::string& topic) {
  const auto it = m_records.find(topic);
  if (it == m_records.end() || it->second.granted || it->second.in_line ||
      !it->second.unanswered.empty()) {
    return;
  }
  const bool asking = std::any_of(m_askers.begin(), m_askers.end(),
                                  [&](const auto& entry) { return entry.second.topic == topic; });
  if (!asking) {
    m_records.erase(it);
  }
}

}  // namespace tokard::client
