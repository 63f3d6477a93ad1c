#pragma once

#include <memory>
#include <string>

#include "ecu/ecu_container.h"
#include "ecu/pb/pgn.pb.h"
#include "lapi/com/transport.h"
#include "utils/sub_wrapper.h"

namespace tokard {

// Serves "system/tokard/request": decodes and checks each token request,
// lets the ECU's record decide and answers every acquire on
// "app/<client>/pgn/response". Releases and refused requests get no answer.
class RequestHandler : ecu::lapi::com::ISubscriptionObserver {
 public:
  static constexpr const char* kRequestTopic = "system/tokard/request";

  explicit RequestHandler(std::shared_ptr<ecu::lapi::com::ITransportClient> client);
  ~RequestHandler() override;
  RequestHandler(const RequestHandler&) = delete;
  RequestHandler& operator=(const RequestHandler&) = delete;

  void message(const std::string& topic, const ecu::lapi::com::Message& msg) override;

 protected:
  virtual void action_acquire(const ecu::lapi::pb::PgnRequestTokenRequest& request);
  virtual void action_release(const ecu::lapi::pb::PgnRequestTokenRequest& request);
  void send_response(const std::string& topic,
                     const ecu::lapi::pb::PgnRequestTokenResponse&& response);

 private:
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_transport;
  std::shared_ptr<utils::SubWrapper> m_subscriber;
  EcuContainer m_ecu_container;
};

}  // namespace tokard
