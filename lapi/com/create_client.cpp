#include "lapi/com/transport.h"

namespace ecu::lapi::com {

std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& /*config*/,
                                                TransportType /*type*/) {
  return nullptr;
}

}  // namespace ecu::lapi::com
