// Any bytes as a frame on the request topic, handled by a fresh request
// handler: an acquire is answered exactly once, on its client's response
// topic, with a frame that reads back; anything else is never answered.
#include "fuzz_support.h"
#include "reqhandler/request_handler.h"
#include "support/fake_transport.h"
#include "utils/topic.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  tokard::fuzz::signals();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace protocol = tokard::protocol;
  const protocol::Message msg = tokard::fuzz::to_message(data, size);
  auto transport = std::make_shared<tokard::test::FakeTransportClient>();
  {
    tokard::RequestHandler handler(transport);
    transport->deliver(protocol::kRequestTopic, msg);
    transport->deliver(protocol::kRequestTopic, msg);  // a refresh, or BUSY for a blocked ECU
  }
  const auto request = protocol::read<protocol::Request>(msg);
  const bool answered = request.ok && !request.value.client_name().empty() &&
                        !request.value.request_topic().empty() &&
                        request.value.action() == protocol::Request::ACQUIRE;
  TOKARD_FUZZ_CHECK(transport->published.size() == (answered ? 2u : 0u));
  for (const auto& sent : transport->published) {
    TOKARD_FUZZ_CHECK(sent.topic == protocol::response_topic(request.value.client_name()));
    const auto response = protocol::read<protocol::Response>(sent.msg);
    TOKARD_FUZZ_CHECK(response.ok &&
                      response.value.request_topic() == request.value.request_topic());
    TOKARD_FUZZ_CHECK(response.value.result() ==
                      (tokard::utils::ecu_from_topic(request.value.request_topic()).ok
                           ? protocol::Response::ACQUIRED
                           : protocol::Response::NO_ECU));
  }
  return 0;
}
