#include "com/protocol.h"

namespace tokard::protocol {

const char* to_word(Response::Result result) noexcept {
  switch (result) {
    case Response::ACQUIRED:
      return "acquired";
    case Response::BUSY:
      return "busy";
    case Response::NO_ECU:
      return "no ECU";
    default:
      return nullptr;
  }
}

const char* to_word(FrameError error) noexcept {
  namespace err = ecu::lapi::com::err;
  switch (error) {
    case err::TOO_SHORT:
      return "shorter than a header";
    case err::HEADER_DECODE:
      return "header does not decode";
    case err::PROTOCOL_NOT_USED:
      return "protocol type 0";
    case err::HEADER_LENGTH:
      return "header length not 18";
    case err::BODY_DECODE:
      return "body does not decode";
    default:
      return nullptr;
  }
}

}  // namespace tokard::protocol
