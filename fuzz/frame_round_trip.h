// Frame decoding of one body type: whatever bytes arrive, deserialize either
// fails with an error code or yields a body that survives a round trip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "com/message_adapter.h"
#include "fuzz_support.h"

namespace tokard::fuzz {

template <typename Body>
void frame_round_trip(const std::uint8_t* data, std::size_t size) {
  using ecu::lapi::com::PbInternalMessageAdapter;
  namespace err = ecu::lapi::com::err;

  PbInternalMessageAdapter<Body> reader;
  const auto decoded = reader.deserialize(to_message(data, size));
  if (!decoded.ok) {
    TOKARD_FUZZ_CHECK(decoded.error >= err::TOO_SHORT && decoded.error <= err::BODY_DECODE);
    return;
  }
  TOKARD_FUZZ_CHECK(decoded.error == err::NO_ERROR);
  TOKARD_FUZZ_CHECK(size >= static_cast<std::size_t>(ecu::lapi::com::kFrameHeaderSize));

  // The same adapter answers with the protocol type it read.
  const auto [built, framed] = reader.serialize(decoded.value);
  TOKARD_FUZZ_CHECK(built);
  PbInternalMessageAdapter<Body> again;
  const auto redecoded = again.deserialize(framed);
  TOKARD_FUZZ_CHECK(redecoded.ok);
  TOKARD_FUZZ_CHECK(again.protocol_type() == reader.protocol_type());
  TOKARD_FUZZ_CHECK(redecoded.value.SerializeAsString() == decoded.value.SerializeAsString());
}

}  // namespace tokard::fuzz
