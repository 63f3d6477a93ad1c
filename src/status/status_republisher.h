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
// One round at a time: after a round's statuses tokard publishes a marker to
// itself, and the broker, which handles one connection's messages in order,
// sends it back only once it has taken every status of the round. A reconnect
// while a round is out calls for one more round once that marker is back;
// libmosquitto sends the round's unacknowledged statuses again meanwhile,
// ahead of anything new. However often a flapping broker comes back, it
// never has more than one round queued for it, and tokard's memory stays
// flat. The price: what a broker acknowledged of a round and then lost is
// back only with the next round, after the new connection's first answers.
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
  bool m_again = false;
  std::atomic<std::uint64_t> m_round{0};
  std::atomic<bool> m_round_out{false};
  std::size_t m_round_size = 0;
  Clock::time_point m_round_started;
};

}  // namespace tokard
