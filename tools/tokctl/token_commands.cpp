#include "token_commands.h"

#include <chrono>
#include <memory>

#include "com/protocol.h"
#include "ending.h"
#include "lease_guard.h"
#include "output.h"
#include "tokard/token_client.h"

namespace tokctl {
namespace {

using Clock = std::chrono::steady_clock;
using tokard::client::AcquireResult;
using tokard::client::ClientError;
using tokard::client::TokenClient;

constexpr std::chrono::seconds kConnectTimeout{3};

int status_of(AcquireResult result) {
  switch (result) {
    case AcquireResult::Acquired:
      return kAcquired;
    case AcquireResult::Busy:
      return kBusy;
    case AcquireResult::NoEcu:
      return kNoEcu;
    case AcquireResult::NoAnswer:
      return kNoAnswer;
  }
  return kUsageOrConnection;
}

double answer_timeout_s(const Options& options) {
  return options.timeout_s.value_or(
      std::chrono::duration<double>(tokard::client::ClientOptions{}.answer_timeout).count());
}

// The answer and the exit status; on no answer, a hint at the likely cause.
int report(const std::string& topic, AcquireResult result, const Options& options,
           tokard::client::TokardState state) {
  say(topic + ": " + tokard::client::to_string(result));
  if (result == AcquireResult::NoAnswer && state == tokard::client::TokardState::Offline) {
    complain("tokard is offline (it says so on " + std::string(tokard::protocol::kStateTopic) +
             ")");
  } else if (result == AcquireResult::NoAnswer) {
    complain("no answer from tokard within " + seconds_text(answer_timeout_s(options)) +
             " s: is it running?");
  }
  return status_of(result);
}

std::unique_ptr<TokenClient> make_client(const Options& options) {
  tokard::client::ClientOptions client;
  client.client_name = options.client;
  client.host = options.host;
  client.port = options.port;
  client.username = options.username;
  client.password = options.password;
  if (options.timeout_s) {
    client.answer_timeout =
        std::chrono::milliseconds(static_cast<long long>(*options.timeout_s * 1000 + 0.5));
  }
  return std::make_unique<TokenClient>(client);
}

bool connect(TokenClient& client, const Options& options) {
  const std::error_code error = client.connect(kConnectTimeout);
  if (!error) {
    return true;
  }
  complain(error == ClientError::BrokerUnreachable
               ? "no connection to the broker at " + options.host + ":" +
                     std::to_string(options.port)
               : error.message());
  return false;
}

// The first answer, then, with --wait, the place in the ECU's line until the
// token is pushed, the deadline passes or a stop signal interrupts.
AcquireResult acquire_or_wait(TokenClient& client, const std::string& topic,
                              const Options& options) {
  const auto started = Clock::now();
  const AcquireResult result = client.acquire(topic);
  const double wait_s = options.wait_s.value_or(0);
  if ((result != AcquireResult::Busy && result != AcquireResult::NoAnswer) || wait_s <= 0) {
    return result;
  }
  say(topic + ": " + tokard::client::to_string(result) + ", waiting up to " + seconds_text(wait_s) +
      " s");
  const auto deadline =
      started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(wait_s));
  return client.wait_for_token(topic, deadline);
}

}  // namespace

int run_acquire(const Options& options) {
  const std::string& topic = options.words.at(0);
  auto client = make_client(options);
  if (!connect(*client, options)) {
    return kUsageOrConnection;
  }
  const AcquireResult result = client->acquire_once(topic);
  return report(topic, result, options, client->tokard_state());
}

int run_hold(const Options& options) {
  const std::string& topic = options.words.at(0);
  if (!options.program.empty()) {
    keep_stdout_for_program();
  }
  Ending ending;
  auto client = make_client(options);
  StopOn signals(ending, [&client] { client->interrupt(); });  // before connect()'s threads
  client->on_token_lost([&ending](const std::string&, AcquireResult why) { ending.lose(why); });
  if (!connect(*client, options)) {
    return kUsageOrConnection;
  }

  const AcquireResult result = acquire_or_wait(*client, topic, options);
  if (result != AcquireResult::Acquired && ending.stopped()) {
    // Interrupted: the answer was not late.
    say(topic + ": " + tokard::client::to_string(result));
    return status_of(result);
  }
  if (result != AcquireResult::Acquired) {
    return report(topic, result, options, client->tokard_state());
  }
  if (!options.program.empty()) {
    return run_while_held(*client, topic, options.program, ending);
  }
  say(topic + ": acquired, holding until SIGINT or SIGTERM");

  ending.wait();
  if (const auto lost = ending.lost(); lost && !ending.stopped()) {
    say(topic + ": token lost (" + tokard::client::to_string(*lost) + ")");
    return status_of(*lost);
  }
  if (const auto error = client->release(topic)) {
    complain(topic + ": " + error.message());
    return kUsageOrConnection;
  }
  say(topic + ": released");
  return kAcquired;
}

int run_release(const Options& options) {
  const std::string& topic = options.words.at(0);
  auto client = make_client(options);
  if (!connect(*client, options)) {
    return kUsageOrConnection;
  }
  if (const auto error = client->release(topic)) {
    complain(topic + ": " + error.message());
    return kUsageOrConnection;
  }
  say(topic + ": release sent");
  return kAcquired;
}

}  // namespace tokctl
