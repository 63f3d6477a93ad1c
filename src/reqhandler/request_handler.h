#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "com/protocol.h"
#include "ecu/ecu_container.h"
#include "ecu/pb/pgn.pb.h"
#include "lapi/com/transport.h"
#include "queue/wait_lines.h"
#include "utils/sub_wrapper.h"

namespace tokard {

// Serves "system/tokard/request": decodes and checks each token request,
// lets the ECU's record decide and answers every acquire on
// "app/<client>/pgn/response". Releases and refused requests get no answer.
// Serves "system/tokard/wait" the same way: an acquire there joins the
// ECU's line of waiting clients, a release leaves it. Decisions are taken
// under the lines' lock (see WaitLines for the threading contract).
class RequestHandler : ecu::lapi::com::ISubscriptionObserver {
 public:
  static constexpr const char* kRequestTopic = protocol::kRequestTopic;

  explicit RequestHandler(std::shared_ptr<ecu::lapi::com::ITransportClient> client);
  ~RequestHandler() override;
  RequestHandler(const RequestHandler&) = delete;
  RequestHandler& operator=(const RequestHandler&) = delete;

  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override;

  // From now on requests are kept undecided, in the order they arrive, and
  // `on_held` runs after each is kept (it may call release_held). Call
  // before the delivery starts.
  void hold_requests(std::function<void()> on_held);
  // Decides the kept requests, then every later one as it comes. On the
  // delivery thread.
  void release_held();

  EcuContainer& ecu_container() { return m_ecu_container; }
  WaitLines& wait_lines() { return m_lines; }

 protected:
  virtual void action_acquire(const ecu::lapi::pb::PgnRequestTokenRequest& request);
  virtual void action_release(const ecu::lapi::pb::PgnRequestTokenRequest& request);
  void send_response(const std::string& topic,
                     const ecu::lapi::pb::PgnRequestTokenResponse&& response);

 private:
  void decide(bool wait, const ecu::lapi::pb::PgnRequestTokenRequest& request);
  void wait_acquire(const ecu::lapi::pb::PgnRequestTokenRequest& request);
  void wait_release(const ecu::lapi::pb::PgnRequestTokenRequest& request);

  std::shared_ptr<ecu::lapi::com::ITransportClient> m_transport;
  std::shared_ptr<utils::SubWrapper> m_subscriber;
  WaitLines m_lines;  // before the container: its records point here
  EcuContainer m_ecu_container;
  bool m_holding = false;
  std::vector<std::pair<std::string, ecu::lapi::com::Message>> m_held;
  std::function<void()> m_on_held;
};

}  // namespace tokard
