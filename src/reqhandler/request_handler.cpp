#include "reqhandler/request_handler.h"

#include "lapi/logging/logging.h"

namespace tokard {
namespace {

namespace logging = ecu::lapi::logging;
using ecu::lapi::pb::PgnRequestTokenRequest;
using ecu::lapi::pb::PgnRequestTokenResponse;

const logging::LogModulePtr g_log = logging::module("tokard.reqhandler");
const logging::LogModulePtr g_log_acquire = logging::module("tokard.reqhandler.acquire");
const logging::LogModulePtr g_log_release = logging::module("tokard.reqhandler.release");
const logging::LogModulePtr g_log_queue = logging::module("tokard.queue");

void no_ecu(const logging::LogModulePtr& log, const PgnRequestTokenRequest& request) {
  LAPI_LOG(ERROR, log) << "Unable to do token handling for topic " << request.request_topic()
                       << " as requested from client: " << request.client_name();
}

}  // namespace

RequestHandler::RequestHandler(std::shared_ptr<ecu::lapi::com::ITransportClient> client)
    : m_transport(client),
      m_subscriber(new utils::SubWrapper(this)),
      m_lines(client),
      m_ecu_container(client) {
  m_ecu_container.set_line(&m_lines);
  const auto observer =
      std::static_pointer_cast<ecu::lapi::com::ISubscriptionObserver>(m_subscriber);
  (void)m_transport->subscribe(kRequestTopic, protocol::kQos, observer);
  (void)m_transport->subscribe(protocol::kWaitTopic, protocol::kQos, observer);
}

RequestHandler::~RequestHandler() {
  m_lines.stop();
  const auto observer =
      std::static_pointer_cast<ecu::lapi::com::ISubscriptionObserver>(m_subscriber);
  (void)m_transport->unsubscribe(kRequestTopic, observer);
  (void)m_transport->unsubscribe(protocol::kWaitTopic, observer);
}

void RequestHandler::hold_requests(std::function<void()> on_held) {
  m_holding = true;
  m_on_held = std::move(on_held);
}

void RequestHandler::release_held() {
  m_holding = false;
  auto held = std::move(m_held);
  m_held.clear();
  for (const auto& [topic, msg] : held) {
    message(topic, msg);
  }
}

void RequestHandler::message(const std::string& topic, const ecu::lapi::com::Message& msg) {
  if (m_holding) {
    m_held.emplace_back(topic, msg);
    if (m_on_held) {
      m_on_held();
    }
    return;
  }
  const bool wait = topic == protocol::kWaitTopic;
  if (!wait && topic != kRequestTopic) {
    LAPI_LOG(ERROR, g_log) << "Unexpected message on topic: " << topic;
    return;
  }
  auto outcome = protocol::read<PgnRequestTokenRequest>(msg);
  if (!outcome.ok) {
    LAPI_LOG(ERROR, g_log) << "Deserialize error occurred: " << static_cast<int>(outcome.error);
    return;
  }
  const PgnRequestTokenRequest request = std::move(outcome.value);
  if (!request.has_client_name() || request.client_name().empty()) {
    LAPI_LOG(ERROR, g_log) << "Received Token request did not contain a client name, "
                           << "unable to handle request";
    return;
  }
  if (!request.has_request_topic() || request.request_topic().empty()) {
    LAPI_LOG(ERROR, g_log) << "Received Token request did not contain a request topic, "
                           << "unable to handle request";
    return;
  }
  const std::lock_guard<std::mutex> lock(m_lines.mutex());
  decide(wait, request);
}

void RequestHandler::decide(bool wait, const PgnRequestTokenRequest& request) {
  switch (request.action()) {
    case PgnRequestTokenRequest::ACQUIRE:
      wait ? wait_acquire(request) : action_acquire(request);
      break;
    case PgnRequestTokenRequest::RELEASE:
      wait ? wait_release(request) : action_release(request);
      m_ecu_container.settle();
      break;
    default:
      LAPI_LOG(INFO, g_log) << "Request action: "
                            << google::protobuf::internal::NameOfEnum(
                                   ecu::lapi::pb::PgnRequestTokenRequest_Action_descriptor(),
                                   request.action())
                            << " not supported.";
      break;
  }
}

void RequestHandler::action_acquire(const PgnRequestTokenRequest& request) {
  PgnRequestTokenResponse response;
  response.set_request_topic(request.request_topic());
  const std::string response_topic = protocol::response_topic(request.client_name());

  PgnRequestTokenResponse::Result result;
  const std::shared_ptr<Ecu> ecu = m_ecu_container.ecu_from_topic(request.request_topic());
  if (!ecu) {
    no_ecu(g_log_acquire, request);
    result = PgnRequestTokenResponse::NO_ECU;
  } else if (!m_lines.refuses(*ecu, request.client_name()) &&
             ecu->acquire_token(request.client_name())) {
    LAPI_LOG(INFO, g_log_acquire) << "Token acquired for '" << ecu->m_name << "' on "
                                  << request.request_topic() << " by " << request.client_name();
    result = PgnRequestTokenResponse::ACQUIRED;
  } else {
    LAPI_LOG(INFO, g_log_acquire) << "ECU is busy or acquired by another client for "
                                  << request.request_topic();
    result = PgnRequestTokenResponse::BUSY;
  }
  response.set_result(result);
  // The new state goes out before the answer. The broker handles one
  // connection's messages in order, so a client holding its answer knows the
  // broker has the state too, and a tokard killed right after answering still
  // finds the grant when it starts again.
  m_ecu_container.settle();
  send_response(response_topic, std::move(response));
}

void RequestHandler::action_release(const PgnRequestTokenRequest& request) {
  const std::shared_ptr<Ecu> ecu = m_ecu_container.ecu_from_topic(request.request_topic());
  if (ecu) {
    (void)ecu->release_token(request.client_name());
    m_lines.changed(*ecu);
    return;
  }
  no_ecu(g_log_release, request);
}

void RequestHandler::wait_acquire(const PgnRequestTokenRequest& request) {
  PgnRequestTokenResponse response;
  response.set_request_topic(request.request_topic());
  const std::shared_ptr<Ecu> ecu = m_ecu_container.ecu_from_topic(request.request_topic());
  if (!ecu) {
    no_ecu(g_log_queue, request);
    response.set_result(PgnRequestTokenResponse::NO_ECU);
  } else {
    response.set_result(m_lines.join(ecu, request.client_name(), request.request_topic()));
  }
  m_ecu_container.settle();
  send_response(protocol::response_topic(request.client_name()), std::move(response));
}

void RequestHandler::wait_release(const PgnRequestTokenRequest& request) {
  const std::shared_ptr<Ecu> ecu = m_ecu_container.ecu_from_topic(request.request_topic());
  if (ecu) {
    m_lines.leave(*ecu, request.client_name());
    return;
  }
  no_ecu(g_log_queue, request);
}

void RequestHandler::send_response(const std::string& topic,
                                   const PgnRequestTokenResponse&& response) {
  ecu::lapi::com::Message msg = protocol::frame(response);
  if (msg.payload.empty()) {
    LAPI_LOG_NO_MODULE(ERROR) << "Unable to serialize response for topic " << topic;
    return;
  }
  msg.qos = protocol::kQos;
  (void)m_transport->publish(topic, msg);
}

}  // namespace tokard
