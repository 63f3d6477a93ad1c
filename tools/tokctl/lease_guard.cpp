#include "lease_guard.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "com/protocol.h"
#include "command_line.h"
#include "output.h"
#include "program.h"

namespace tokctl {
namespace {

using Clock = Ending::Clock;
using tokard::client::AcquireResult;

// Far enough for "no deadline", near enough for every clock's arithmetic.
constexpr std::chrono::hours kNever{24};

// When COMMAND gets SIGKILL at the latest: kMargin before the lease granted
// last could lapse. The last grant is remembered: a lost token has none.
class LeaseClock {
 public:
  LeaseClock(const tokard::client::TokenClient& client, std::string topic)
      : m_client(client), m_topic(std::move(topic)) {}
  Clock::time_point kill_deadline() {
    if (const auto granted = m_client.granted_at(m_topic)) {
      m_granted = std::max(m_granted, *granted);
    }
    return m_granted + tokard::protocol::kTokenTimeout - kMargin;
  }

 private:
  const tokard::client::TokenClient& m_client;
  std::string m_topic;
  Clock::time_point m_granted{};
};

// The stop of COMMAND once the token is lost: SIGTERM at once, SIGKILL after
// the grace or at the kill deadline, whichever comes first.
struct Stopping {
  bool begun = false;
  Clock::time_point kill_at{};
  bool killed = false;
};

}  // namespace

int run_while_held(tokard::client::TokenClient& client, const std::string& topic,
                   const std::vector<std::string>& program, Ending& ending) {
  if (!client.holds(topic)) {
    say(topic + ": token lost before " + program[0] + " could start");
    return kBusy;
  }
  LeaseClock lease(client, topic);
  Program child;
  if (const int error = child.start(program)) {
    complain("cannot run '" + program[0] + "': " + std::strerror(error));
    (void)client.release(topic);
    return error == ENOENT ? 127 : 126;
  }
  std::thread reaper([&child, &ending] {
    child.wait_for_end();
    ending.program_ended();
  });

  Stopping stopping;
  bool forwarded = false;
  for (;;) {
    const unsigned seen = ending.changes();
    if (ending.program_has_ended()) {
      break;
    }
    const auto now = Clock::now();
    const auto kill_at = lease.kill_deadline();
    const auto lost = ending.lost();
    if (!stopping.begun && (lost || now >= kill_at - kGrace)) {
      complain(topic + ": token lost (" +
               tokard::client::to_string(lost.value_or(AcquireResult::NoAnswer)) + "), stopping " +
               program[0]);
      child.signal(SIGTERM);
      stopping = {true, std::min(now + kGrace, kill_at), false};
    }
    if (stopping.begun && !stopping.killed && now >= stopping.kill_at) {
      child.signal(SIGKILL);
      stopping.killed = true;
    }
    if (!forwarded && ending.stopped()) {
      child.signal(SIGTERM);
      forwarded = true;
    }
    const auto next = stopping.killed  ? now + kNever
                      : stopping.begun ? stopping.kill_at
                                       : kill_at - kGrace;
    ending.wait_until(next, seen);
  }
  reaper.join();
  if (stopping.begun) {
    child.signal(SIGKILL);  // whatever COMMAND started and left behind
  }
  const int status = child.reap();
  (void)client.release(topic);
  return stopping.begun ? kBusy : status;
}

}  // namespace tokctl
