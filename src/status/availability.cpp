#include "status/availability.h"

#include <cstring>
#include <utility>

#include "com/protocol.h"

namespace tokard {
namespace {

ecu::lapi::com::Message state(const char* text) {
  ecu::lapi::com::Message msg;
  msg.qos = protocol::kQos;
  msg.extra_flag = true;
  msg.payload.assign(text, text + std::strlen(text));
  return msg;
}

}  // namespace

Availability::Availability(std::shared_ptr<ecu::lapi::com::ITransportClient> client)
    : m_client(std::move(client)) {
  (void)m_client->set_will(protocol::kStateTopic, state(protocol::kOffline));
}

void Availability::online() {
  (void)m_client->publish(protocol::kStateTopic, state(protocol::kOnline));
}

void Availability::offline() {
  (void)m_client->publish(protocol::kStateTopic, state(protocol::kOffline));
}

}  // namespace tokard
