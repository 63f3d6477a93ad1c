// Any bytes as a frame carrying a real-time signal group.
#include <cstddef>
#include <cstdint>

#include "ecu/pb/rt.pb.h"
#include "frame_round_trip.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tokard::fuzz::quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tokard::fuzz::frame_round_trip<ecu::lapi::pb::RtSignalGroup>(data, size);
  return 0;
}
