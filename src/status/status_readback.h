#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ecu/ecu.h"
#include "lapi/com/transport.h"
#include "reqhandler/request_handler.h"
#include "status/status_publisher.h"
#include "utils/sub_wrapper.h"

namespace tokard {

// Takes the token state back from the retained statuses that an earlier
// tokard left on the broker, before any request is decided.
//
// It subscribes "system/tokard/status/+" and a marker topic of its own and
// holds the requests. After each connect it publishes the marker: the broker
// sends the retained statuses in answer to the SUBSCRIBE, before the marker,
// so the marker's return ends the read-back. Each valid status recreates its
// record with its topics, generation and blocked flag, and, when it was
// written in this boot of the controller, its holder with a fresh lease from
// tokard's start. A status not worth keeping (an older tokard kept every
// name) is removed from the broker and restores nothing. Then the held
// requests are decided.
class StatusReadback : public ecu::lapi::com::ISubscriptionObserver {
 public:
  using Clock = Ecu::Clock;
  using Now = std::function<Clock::time_point()>;
  // Requests held longer than this are decided on what was read by then.
  static constexpr std::chrono::seconds kLongest{10};

  StatusReadback(std::shared_ptr<ecu::lapi::com::ITransportClient> client, RequestHandler& handler,
                 std::shared_ptr<StatusPublisher> publisher, Clock::time_point started,
                 Now now = &Clock::now);
  ~StatusReadback() override;
  StatusReadback(const StatusReadback&) = delete;
  StatusReadback& operator=(const StatusReadback&) = delete;

  // Call after every accepted connect.
  void connected();
  // Call now and then from any thread: sends the marker again while the
  // read-back is not complete, in case the broker dropped it (a client's
  // queue overflows when thousands of statuses come at once).
  void remind();
  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override;

 private:
  void restore(const std::string& topic, const ecu::lapi::com::Message& msg);
  void finish();
  void send_marker();
  void withdraw();

  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
  RequestHandler& m_handler;
  std::shared_ptr<StatusPublisher> m_publisher;
  const Clock::time_point m_started;
  const Now m_now;
  const std::string m_marker_topic;
  const std::string m_marker;
  std::shared_ptr<utils::SubWrapper> m_subscriber;
  Clock::time_point m_deadline = Clock::time_point::max();
  std::atomic<bool> m_complete{false};
  std::atomic<bool> m_marker_sent{false};
  std::vector<std::shared_ptr<Ecu>> m_restored;
  std::size_t m_removed = 0;
};

}  // namespace tokard
