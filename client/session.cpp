#include "session.h"

#include <algorithm>
#include <utility>

namespace tokard::client {
namespace {

using protocol::Request;
using protocol::Response;

constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{2000};
constexpr std::chrono::milliseconds kShortestWait{10};
// While tokard says it is offline it gets a moment to come back, not the
// whole answer time-out.
constexpr std::chrono::milliseconds kOfflineGrace{300};

std::optional<AcquireResult> result_of(const Response& response) {
  switch (response.result()) {
    case Response::ACQUIRED:
      return AcquireResult::Acquired;
    case Response::BUSY:
      return AcquireResult::Busy;
    case Response::NO_ECU:
      return AcquireResult::NoEcu;
    default:
      return std::nullopt;
  }
}

}  // namespace

Session::Session(std::string client_name, SessionTiming timing, Ledger::Now now)
    : m_client_name(std::move(client_name)), m_timing(timing), m_ledger(std::move(now)) {}

void Session::attach(std::shared_ptr<ecu::lapi::com::ITransportClient> transport) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_transport = std::move(transport);
}

void Session::on_loss(std::function<void()> wake) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_wake = std::move(wake);
}

void Session::message(const std::string& topic, const ecu::lapi::com::Message& msg) {
  if (topic == protocol::kStateTopic) {
    const std::string text(msg.payload.begin(), msg.payload.end());
    m_state = text == protocol::kOnline    ? TokardState::Online
              : text == protocol::kOffline ? TokardState::Offline
                                           : TokardState::Unknown;
    std::lock_guard<std::mutex> lock(m_mutex);  // a waiter sees the state or the wake-up
    m_changed.notify_all();
    return;
  }
  const auto decoded = protocol::read<Response>(msg);
  const auto result = decoded.ok ? result_of(decoded.value) : std::nullopt;
  if (!result || !decoded.value.has_request_topic()) {
    return;
  }
  const std::string& ecu_topic = decoded.value.request_topic();
  std::function<void()> wake;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    switch (m_ledger.answered(ecu_topic, *result)) {
      case Ledger::Step::GiveBack:
        send(protocol::kRequestTopic, Request::RELEASE, ecu_topic);
        break;
      case Ledger::Step::Lost:
        m_lost.push_back({ecu_topic, *result});
        wake = m_wake;
        break;
      case Ledger::Step::None:
        break;
    }
  }
  m_changed.notify_all();
  if (wake) {
    wake();
  }
}

AcquireResult Session::acquire(const std::string& topic, Ledger::Kind kind) {
  return ask(topic, kind, m_timing.answer_timeout);
}

AcquireResult Session::ask(const std::string& topic, Ledger::Kind kind,
                           std::chrono::milliseconds timeout) {
  if (topic.empty()) {
    return AcquireResult::NoEcu;
  }
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_transport || m_interrupted) {
    return AcquireResult::NoAnswer;
  }
  const auto asked = Clock::now();
  const auto ticket = m_ledger.asked(topic, kind);
  const bool sent = send(protocol::kRequestTopic, Request::ACQUIRE, topic);
  const AcquireResult answer =
      sent ? await(ticket, asked, timeout, lock).value_or(AcquireResult::NoAnswer)
           : AcquireResult::NoAnswer;
  m_ledger.settled(ticket);
  return answer;
}

std::optional<AcquireResult> Session::await(Ledger::Ticket ticket, Clock::time_point asked,
                                            std::chrono::milliseconds timeout,
                                            std::unique_lock<std::mutex>& lock) {
  for (;;) {
    const auto answer = m_ledger.answer_to(ticket);
    if (answer || m_interrupted) {
      return answer;
    }
    const auto limit =
        asked + (m_state == TokardState::Offline ? std::min(timeout, kOfflineGrace) : timeout);
    if (Clock::now() >= limit) {
      return std::nullopt;
    }
    m_changed.wait_until(lock, limit);
  }
}

AcquireResult Session::wait_for_token(const std::string& topic, Clock::time_point deadline) {
  if (topic.empty()) {
    return AcquireResult::NoEcu;
  }
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_transport || m_interrupted) {
      return AcquireResult::NoAnswer;
    }
    if (const auto answer = join(topic, deadline, lock)) {
      return *answer;
    }
  }
  if (m_interrupted) {
    return AcquireResult::NoAnswer;
  }
  return poll(topic, deadline);
}

// One wait request; answered Busy, in line until the grant, the deadline or
// interrupt(). Nothing when tokard does not answer it: the line is left again.
std::optional<AcquireResult> Session::join(const std::string& topic, Clock::time_point deadline,
                                           std::unique_lock<std::mutex>& lock) {
  m_ledger.joined(topic);
  const auto asked = Clock::now();
  const auto ticket = m_ledger.asked(topic, Ledger::Kind::Line);
  const bool sent = send(protocol::kWaitTopic, Request::ACQUIRE, topic);
  // tokard never answers NoAnswer: here it stands for no answer at all.
  const AcquireResult answer =
      sent ? await(ticket, asked, m_timing.answer_timeout, lock).value_or(AcquireResult::NoAnswer)
           : AcquireResult::NoAnswer;
  m_ledger.settled(ticket);
  if (answer == AcquireResult::Busy) {
    return wait_in_line(topic, deadline, lock);
  }
  m_ledger.left(topic);
  if (answer != AcquireResult::NoAnswer || !sent) {
    return answer;
  }
  send(protocol::kWaitTopic, Request::RELEASE, topic);
  return std::nullopt;
}

// Busy: in line until the pushed grant, the deadline or interrupt().
AcquireResult Session::wait_in_line(const std::string& topic, Clock::time_point deadline,
                                    std::unique_lock<std::mutex>& lock) {
  AcquireResult last = AcquireResult::Busy;
  Ledger::Ticket repeat = 0;
  auto next_repeat = Clock::now() + m_timing.refresh_period;
  for (;;) {
    if (const auto answer = m_ledger.answer_to(repeat)) {
      last = *answer;
    }
    if (m_ledger.holds(topic) || last == AcquireResult::NoEcu) {
      break;
    }
    const auto now = Clock::now();
    if (m_interrupted || now >= deadline) {
      break;
    }
    if (now >= next_repeat) {
      m_ledger.settled(repeat);
      repeat = m_ledger.asked(topic, Ledger::Kind::Line);
      send(protocol::kWaitTopic, Request::ACQUIRE, topic);
      next_repeat = now + m_timing.refresh_period;
    }
    m_changed.wait_until(lock, std::min(deadline, next_repeat));
  }
  m_ledger.settled(repeat);
  if (m_ledger.holds(topic)) {
    return AcquireResult::Acquired;
  }
  // Left before the grant: one pushed from now on is given back.
  m_ledger.left(topic);
  if (last != AcquireResult::NoEcu) {
    send(protocol::kWaitTopic, Request::RELEASE, topic);
  }
  return last;
}

// Asking as before lines existed. A tokard that answers Busy again may only
// have been away when the wait request went out: it gets one more.
AcquireResult Session::poll(const std::string& topic, Clock::time_point deadline) {
  auto pause = kFirstPause;
  bool joined_again = false;
  AcquireResult result = ask(topic, Ledger::Kind::Keep, m_timing.answer_timeout);
  while (result != AcquireResult::Acquired && result != AcquireResult::NoEcu) {
    if (result == AcquireResult::Busy && !joined_again && !m_interrupted) {
      joined_again = true;
      std::unique_lock<std::mutex> lock(m_mutex);
      if (const auto answer = join(topic, deadline, lock)) {
        return *answer;
      }
    }
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      const auto resume = std::min(deadline, Clock::now() + pause);
      m_changed.wait_until(lock, resume, [this] { return m_interrupted.load(); });
    }
    const auto now = Clock::now();
    if (m_interrupted || now >= deadline) {
      return result;
    }
    pause = std::min(pause * 2, kLongestPause);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    const AcquireResult next =
        ask(topic, Ledger::Kind::Keep,
            std::min(m_timing.answer_timeout, std::max(left, kShortestWait)));
    // An interrupted or late attempt tells nothing new about the token.
    if (next != AcquireResult::NoAnswer || result == AcquireResult::NoAnswer) {
      result = next;
    }
  }
  return result;
}

std::error_code Session::release(const std::string& topic) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_transport) {
    return ClientError::NotConnected;
  }
  m_ledger.released(topic);
  if (!send(protocol::kRequestTopic, Request::RELEASE, topic)) {
    return ClientError::SendFailed;
  }
  return {};
}

void Session::release_all() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto& topic : m_ledger.held()) {
    m_ledger.released(topic);
    send(protocol::kRequestTopic, Request::RELEASE, topic);
  }
}

bool Session::holds(const std::string& topic) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_ledger.holds(topic);
}

std::optional<Session::Clock::time_point> Session::granted_at(const std::string& topic) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_ledger.granted_at(topic);
}

void Session::on_token_lost(LostHandler handler) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lost_handler = std::move(handler);
}

void Session::interrupt() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_interrupted = true;
  }
  m_changed.notify_all();
}

void Session::refresh() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto& topic : m_ledger.expired()) {
    m_lost.push_back({topic, AcquireResult::NoAnswer});
  }
  // Renewals are not waited for: their answers reach the ledger as they come.
  for (const auto& topic : m_ledger.held()) {
    m_ledger.asked(topic, Ledger::Kind::Renew);
    send(protocol::kRequestTopic, Request::ACQUIRE, topic);
  }
}

void Session::report() {
  std::vector<Lost> lost;
  LostHandler handler;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    lost.swap(m_lost);
    handler = m_lost_handler;
  }
  for (const auto& entry : lost) {
    if (handler) {
      handler(entry.topic, entry.why);
    }
  }
}

bool Session::send(const char* on, Request::Action action, const std::string& topic) {
  if (!m_transport) {
    return false;
  }
  ecu::lapi::com::Message msg = protocol::request_frame(action, topic, m_client_name);
  if (msg.payload.empty()) {
    return false;
  }
  msg.qos = protocol::kQos;
  return m_transport->publish(on, msg);
}

}  // namespace tokard::client
