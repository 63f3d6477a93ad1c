#include "commands.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include "frames.h"
#include "lapi/com/transport.h"
#include "lapi/config/configuration.h"
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

std::unique_ptr<TokenClient> make_client(const Options& options) {
  tokard::client::ClientOptions client;
  client.client_name = options.client;
  client.host = options.host;
  client.port = options.port;
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
  complain(error == ClientError::BrokerUnreachable ? "no connection to the broker at " +
                                                         broker(options)
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

}  // namespace

int run_acquire(const Options& options) {
  const std::string& topic = options.words.at(0);
  auto client = make_client(options);
  if (!connect(*client, options)) {
    return kUsageOrConnection;
  }
  const AcquireResult result = client->acquire_once(topic);
  say(topic + ": " + tokard::client::to_string(result));
  return status_of(result);
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
    const auto deadline =
        started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(wait_s));
    result = client->wait_for_token(topic, deadline);
  }
  if (result != AcquireResult::Acquired) {
    say(topic + ": " + tokard::client::to_string(result));
    return status_of(result);
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
  ecu::lapi::com::Message frame;
  if (!group_frame(options.group, signals, frame)) {
    complain("the group cannot be encoded");
    return kUsageOrConnection;
  }
  frame.qos = 1;
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

int run_watch(const Options& options) {
  static const std::vector<std::string> kDefaultTopics{"system/tokard/request",
                                                       "app/+/pgn/response", "rt/#", "rttx/#"};
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
