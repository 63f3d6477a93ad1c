#include "bus_commands.h"

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "client/bus.h"
#include "com/protocol.h"
#include "ending.h"
#include "frames.h"
#include "lapi/com/topic_check.h"
#include "lapi/rt/signal_adapter.h"
#include "output.h"
#include "status_view.h"

namespace tokctl {
namespace {

using Clock = std::chrono::steady_clock;
namespace protocol = tokard::protocol;

constexpr std::chrono::seconds kConnectTimeout{3};

// A transport connected and subscribed to `topics` for `observer`; empty
// after a complaint when it cannot be had.
std::shared_ptr<ecu::lapi::com::ITransportClient> open(
    const Options& options, const std::vector<std::string>& topics,
    const std::shared_ptr<ecu::lapi::com::ISubscriptionObserver>& observer) {
  tokard::client::BusSettings settings;
  settings.host = options.host;
  settings.port = options.port;
  settings.mqtt_client_id = "tokctl-" + std::to_string(::getpid());
  settings.username = options.username;
  settings.password = options.password;
  auto bus = tokard::client::open_bus(settings, topics, observer, kConnectTimeout);
  if (bus.error == tokard::client::BusError::InvalidTopic) {
    for (const auto& topic : topics) {
      if (!ecu::lapi::com::is_topic_filter(topic)) {
        complain("'" + topic + "' is not a topic filter");
      }
    }
  } else if (bus.error != tokard::client::BusError::None) {
    complain("no connection to the broker at " + options.host + ":" + std::to_string(options.port));
  }
  return bus.transport;
}

// Stops the delivery first, so that no observer runs while it is removed.
void close(ecu::lapi::com::ITransportClient& bus, const std::vector<std::string>& topics,
           const std::shared_ptr<ecu::lapi::com::ISubscriptionObserver>& observer) {
  bus.stop();
  for (const auto& topic : topics) {
    (void)bus.unsubscribe(topic, observer);
  }
}

class Printer : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override {
    say(watch_line(topic, msg, std::chrono::system_clock::now()));
  }
};

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

}  // namespace

int run_signal(const Options& options) {
  const std::string& topic = options.words.at(0);
  std::vector<protocol::SignalValue> signals;
  bool valid = true;
  for (std::size_t i = 1; i < options.words.size(); ++i) {
    protocol::SignalValue sig;
    std::string error;
    if (!parse_signal(options.words[i], sig, error)) {
      complain(error);
      return kUsageOrConnection;
    }
    valid = valid && sig.status == 0;
    signals.push_back(std::move(sig));
  }
  ecu::lapi::com::Message frame = protocol::group_frame(options.group, signals);
  if (frame.payload.empty()) {
    complain("the group cannot be encoded");
    return kUsageOrConnection;
  }
  frame.qos = protocol::kQos;
  check_definition(topic, options.group, frame);
  const auto bus = open(options, {}, nullptr);
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
  // Retained messages come in a burst right after the subscription; once the
  // broker has been quiet this long, everything has arrived.
  constexpr auto kQuiet = std::chrono::milliseconds(300);
  constexpr auto kPoll = std::chrono::milliseconds(10);
  const auto topics = status_topics(options.words);
  const auto collector = std::make_shared<StatusCollector>();
  const auto bus = open(options, topics, collector);
  if (!bus) {
    return kUsageOrConnection;
  }
  const auto start = Clock::now();
  const auto deadline = start + std::chrono::milliseconds(
                                    static_cast<long long>(options.timeout_s.value_or(2) * 1000));
  while (Clock::now() < deadline && Clock::now() - std::max(start, collector->last()) < kQuiet) {
    std::this_thread::sleep_for(kPoll);
  }
  close(*bus, topics, collector);
  std::cout << collector->report(options.json, unix_ms(std::chrono::system_clock::now()))
            << std::flush;
  return collector->online() ? kAcquired : kNoAnswer;
}

int run_watch(const Options& options) {
  static const std::vector<std::string> kDefaultTopics{protocol::kRequestTopic,
                                                       protocol::kResponseFilter,
                                                       std::string(protocol::kRtPrefix) + "#",
                                                       std::string(protocol::kTxPrefix) + "#",
                                                       protocol::kStateTopic,
                                                       protocol::kStatusFilter};
  const std::vector<std::string>& topics = options.words.empty() ? kDefaultTopics : options.words;
  Ending ending;
  StopOn signals(ending);  // before the transport starts its thread
  const auto printer = std::make_shared<Printer>();
  const auto bus = open(options, topics, printer);
  if (!bus) {
    return kUsageOrConnection;
  }
  std::string list;
  for (const auto& topic : topics) {
    list += " " + topic;
  }
  say("watching" + list);
  ending.wait();
  close(*bus, topics, printer);
  return kAcquired;
}

}  // namespace tokctl
