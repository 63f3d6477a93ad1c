#include "commands.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include "frames.h"
#include "lapi/com/transport.h"
#include "lapi/config/configuration.h"
#include "lapi/rt/signal_adapter.h"
#include "status_view.h"
#include "stop_signals.h"
#include "tokard/token_client.h"

namespace tokctl {
namespace {

using Clock = std::chrono::steady_clock;
using tokard::client::AcquireResult;
using tokard::client::ClientError;
using tokard::client::TokenClient;

constexpr std::chrono::seconds kConnectTimeout{3};
constexpr std::chrono::milliseconds kConnectPoll{10};
// hold --wait: the pause after a busy answer before asking again.
constexpr std::chrono::milliseconds kFirstRetry{100};

// Lines come from the main thread and the delivery thread.
std::mutex g_output_mutex;

void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_output_mutex);
  std::cout << line << std::endl;
}

void complain(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_output_mutex);
  std::cerr << "tokctl: " << line << std::endl;
}

std::string broker(const Options& options) {
  return options.host + ":" + std::to_string(options.port);
}

std::string seconds_text(double seconds) {
  std::ostringstream out;
  out << seconds;
  return out.str();
}

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
               ? "no connection to the broker at " + broker(options)
               : error.message());
  return false;
}

// A bare transport client, for the commands that do not ask for tokens;
// empty after a complaint when the broker does not answer in time.
std::shared_ptr<ecu::lapi::com::ITransportClient> connect_bus(
    const Options& options, const std::vector<std::string>& topics,
    const std::shared_ptr<ecu::lapi::com::ISubscriptionObserver>& observer) {
  auto config = std::make_unique<ecu::lapi::config::Configuration>();
  config->set("host", options.host);
  config->set("port", std::to_string(options.port));
  config->set("client_name", "tokctl-" + std::to_string(::getpid()));
  config->set("username", options.username);
  config->set("password", options.password);
  auto bus = ecu::lapi::com::create_client(config, ecu::lapi::com::INTERNAL_MQTT);
  for (const auto& topic : topics) {
    if (!bus->subscribe(topic, 1, observer)) {
      complain("'" + topic + "' is not a topic filter");
      return nullptr;
    }
  }
  if (!bus->connect()) {
    complain("no connection to the broker at " + broker(options));
    return nullptr;
  }
  bus->start();
  const auto deadline = Clock::now() + kConnectTimeout;
  while (!bus->is_connected()) {
    if (Clock::now() >= deadline) {
      bus->stop();
      complain("no connection to the broker at " + broker(options));
      return nullptr;
    }
    std::this_thread::sleep_for(kConnectPoll);
  }
  return bus;
}

// What ends `hold` and `watch`: a stop signal, or the token's loss.
struct Ending {
  std::mutex mutex;
  std::condition_variable changed;
  bool stop = false;
  std::optional<AcquireResult> lost;

  void wait() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return stop || lost.has_value(); });
  }
};

std::string wall_time() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) %
                  std::chrono::seconds(1);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
  char millis[8];
  std::snprintf(millis, sizeof millis, ".%03d", static_cast<int>(ms.count()));
  return std::string(text, length) + millis;
}

class Printer : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override {
    say(wall_time() + " " + topic + " " + describe(topic, msg));
  }
};

// Collects tokard's retained state as the broker hands it over.
class StatusCollector : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_last = Clock::now();
    if (topic == tokard::protocol::kStateTopic) {
      m_state.assign(msg.payload.begin(), msg.payload.end());
    } else if (auto status = read_status(msg)) {
      m_ecus[status->ecu] = std::move(*status);
    }
  }
  Clock::time_point last() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
  }
  std::string state() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state.empty() ? "never seen" : m_state;
  }
  std::vector<EcuStatus> ecus() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<EcuStatus> out;
    for (const auto& entry : m_ecus) {
      out.push_back(entry.second);
    }
    return out;
  }

 private:
  mutable std::mutex m_mutex;
  Clock::time_point m_last{};
  std::string m_state;
  std::map<std::string, EcuStatus> m_ecus;  // by name
};

std::uint64_t unix_ms_now() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(
      duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
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
  Ending ending;
  auto client = make_client(options);
  StopSignals signals;  // before connect() starts the client's threads
  signals.start([&](int) {
    {
      std::lock_guard<std::mutex> lock(ending.mutex);
      ending.stop = true;
    }
    client->interrupt();
    ending.changed.notify_all();
  });
  client->on_token_lost([&](const std::string&, AcquireResult why) {
    {
      std::lock_guard<std::mutex> lock(ending.mutex);
      ending.lost = why;
    }
    ending.changed.notify_all();
  });
  if (!connect(*client, options)) {
    return kUsageOrConnection;
  }

  const auto started = Clock::now();
  AcquireResult result = client->acquire(topic);
  const double wait_s = options.wait_s.value_or(0);
  if ((result == AcquireResult::Busy || result == AcquireResult::NoAnswer) && wait_s > 0) {
    say(topic + ": " + tokard::client::to_string(result) + ", waiting up to " +
        seconds_text(wait_s) + " s");
    const auto deadline = started + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(wait_s));
    // wait_for_token asks at once: pause first, or the ECU is asked twice in
    // a millisecond.
    bool stopped = false;
    {
      std::unique_lock<std::mutex> lock(ending.mutex);
      stopped = ending.changed.wait_until(lock, std::min(deadline, Clock::now() + kFirstRetry),
                                          [&] { return ending.stop; });
    }
    if (!stopped && Clock::now() < deadline) {
      result = client->wait_for_token(topic, deadline);
    }
  }
  if (result != AcquireResult::Acquired) {
    std::lock_guard<std::mutex> lock(ending.mutex);
    if (ending.stop) {  // interrupted: the answer was not late
      say(topic + ": " + tokard::client::to_string(result));
      return status_of(result);
    }
  }
  if (result != AcquireResult::Acquired) {
    return report(topic, result, options, client->tokard_state());
  }
  say(topic + ": acquired, holding until SIGINT or SIGTERM");

  ending.wait();
  std::optional<AcquireResult> lost;
  {
    std::lock_guard<std::mutex> lock(ending.mutex);
    if (!ending.stop) {
      lost = ending.lost;
    }
  }
  if (lost) {
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

// tokard rejects a group that does not match the definition for its topic;
// say so before sending, when the definitions are readable here.
void check_definition(const std::string& topic, const std::string& group,
                      const ecu::lapi::com::Message& frame) {
  const std::string path = ecu::lapi::rt::SignalAdapter::definitions_path();
  if (!std::ifstream(path)) {
    return;
  }
  ecu::lapi::rt::SignalAdapter definitions;
  if (!definitions.load(path) || definitions.unpack(topic, frame).success) {
    return;
  }
  const std::string defined = definitions.group_name(topic);
  if (defined.empty()) {
    complain("warning: " + path + " defines no signal group for " + topic +
             ": tokard will reject this one");
  } else if (defined != group) {
    complain("warning: the group defined for " + topic + " in " + path + " is " + defined +
             ", not " + group + ": tokard will reject this one");
  } else {
    complain("warning: the signals do not match group " + group + " as " + path +
             " defines it: tokard will reject this one");
  }
}

int run_signal(const Options& options) {
  const std::string& topic = options.words.at(0);
  std::vector<SignalSpec> signals;
  bool valid = true;
  for (std::size_t i = 1; i < options.words.size(); ++i) {
    SignalSpec sig;
    std::string error;
    if (!parse_signal(options.words[i], sig, error)) {
      complain(error);
      return kUsageOrConnection;
    }
    valid = valid && sig.status == 0;
    signals.push_back(std::move(sig));
  }
  ecu::lapi::com::Message frame = tokard::protocol::group_frame(options.group, signals);
  if (frame.payload.empty()) {
    complain("the group cannot be encoded");
    return kUsageOrConnection;
  }
  frame.qos = 1;
  check_definition(topic, options.group, frame);
  const auto bus = connect_bus(options, {}, nullptr);
  if (!bus) {
    return kUsageOrConnection;
  }
  if (!bus->publish(topic, frame)) {
    complain("'" + topic + "' is not a topic to publish on");
    return kUsageOrConnection;
  }
  say(topic + ": sent group " + options.group + (valid ? " (valid)" : " (not valid)"));
  return kAcquired;
}

int run_status(const Options& options) {
  namespace protocol = tokard::protocol;
  // Retained messages come in a burst right after the subscription; once the
  // broker has been quiet this long, everything has arrived.
  constexpr auto kQuiet = std::chrono::milliseconds(300);
  std::vector<std::string> topics{protocol::kStateTopic};
  if (options.words.empty()) {
    topics.emplace_back(protocol::kStatusFilter);
  }
  for (const auto& ecu : options.words) {
    topics.push_back(protocol::status_topic(ecu));
  }
  const auto collector = std::make_shared<StatusCollector>();
  const auto bus = connect_bus(options, topics, collector);
  if (!bus) {
    return kUsageOrConnection;
  }
  const auto start = Clock::now();
  const auto deadline = start + std::chrono::milliseconds(
                                    static_cast<long long>(options.timeout_s.value_or(2) * 1000));
  while (Clock::now() < deadline && Clock::now() - std::max(start, collector->last()) < kQuiet) {
    std::this_thread::sleep_for(kConnectPoll);
  }
  bus->stop();
  for (const auto& topic : topics) {
    bus->unsubscribe(topic, collector);
  }
  const std::string state = collector->state();
  const auto ecus = collector->ecus();
  std::cout << (options.json ? status_json(state, ecus, unix_ms_now())
                             : status_table(state, ecus, unix_ms_now()))
            << std::flush;
  return state == protocol::kOnline ? kAcquired : kNoAnswer;
}

int run_watch(const Options& options) {
  namespace protocol = tokard::protocol;
  static const std::vector<std::string> kDefaultTopics{protocol::kRequestTopic,
                                                       protocol::kResponseFilter,
                                                       std::string(protocol::kRtPrefix) + "#",
                                                       std::string(protocol::kTxPrefix) + "#",
                                                       protocol::kStateTopic,
                                                       protocol::kStatusFilter};
  const std::vector<std::string>& topics = options.words.empty() ? kDefaultTopics : options.words;
  Ending ending;
  StopSignals signals;  // before the transport starts its thread
  signals.start([&](int) {
    {
      std::lock_guard<std::mutex> lock(ending.mutex);
      ending.stop = true;
    }
    ending.changed.notify_all();
  });
  const auto printer = std::make_shared<Printer>();
  const auto bus = connect_bus(options, topics, printer);
  if (!bus) {
    return kUsageOrConnection;
  }
  std::string list;
  for (const auto& topic : topics) {
    list += " " + topic;
  }
  say("watching" + list);
  ending.wait();
  bus->stop();
  for (const auto& topic : topics) {
    bus->unsubscribe(topic, printer);
  }
  return kAcquired;
}

}  // namespace tokctl
