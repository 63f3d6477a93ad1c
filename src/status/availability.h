#pragma once

#include <memory>

#include "lapi/com/transport.h"

namespace tokard {

// tokard's availability, retained on "system/tokard/state": "online" after
// every connect, "offline" on a clean stop, and "offline" from the broker
// (the will) when tokard or its connection dies.
class Availability {
 public:
  // Sets the will; before the client connects.
  explicit Availability(std::shared_ptr<ecu::lapi::com::ITransportClient> client);
  virtual ~Availability() = default;

  void online();
  void offline();

 private:
  std::shared_ptr<ecu::lapi::com::ITransportClient> m_client;
};

}  // namespace tokard
