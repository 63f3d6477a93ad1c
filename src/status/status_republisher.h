#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "ecu/ecu.h"
#include "lapi/com/transport.h"
#include "status/status_publisher.h"
#include "utils/sub_wrapper.h"

namespace tokard {

// Publishes every status worth keeping again after each reconnect, so that a
// broker that lost its retained messages (run without persistence, or killed
// within its autosave interval) has them back. It runs once the
// subscriptions are acknowledged, on the delivery thread, so the statuses go
// out before any request of the new connection is answered.
//
// Every connect starts a round, also while the last one is out: the broker
// that acknowledged part of it may be the one that lost it. After a round's
// statuses tokard publishes a marker to itself; the broker, which handles
// one connection's messages in order, sends it back once it has taken every
// status of the round, and the round's time is logged. The pace is the
// broker's: libmosquitto keeps at most its inflight window of QoS 1
// messages unacknowledged and queues the rest.
class StatusRepublisher : public ecu::lapi::com::ISubscriptionObserver {
 public:
  using Clock = Ecu::Clock;

  StatusRepublisher(std::shared_ptr<ecu::lapi::com::ITransportClient> client,
                    std::shared_ptr<StatusPublisher> publisher);
  ~StatusRepublisher() override;
  StatusRepublisher(const StatusRepublisher&) = delete;
  StatusRepublisher& operator=(const StatusRepublisher&) = delete;

  // Call after every accepted connect, on the delivery thread.
  void connected();
  // Call now and then from any thread: sends the marker of the round that is
  // out again, in case the broker dropped it.
  void remind();
  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override;

 private:
  void start_round();
  void send_marker();
  std::string marker(std::uint64_t round) const;

  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
  std::shared_ptr<StatusPublisher> m_publisher;
  std::shared_ptr<utils::SubWrapper> m_subscriber;
  bool m_subscribed = false;
  std::atomic<std::uint64_t> m_round{0};
  std::atomic<bool> m_round_out{false};
  std::size_t m_round_size = 0;
  Clock::time_point m_round_started;
};

}  // namespace tokard
