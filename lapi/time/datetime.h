#pragma once

#include <cstdint>

namespace ecu::lapi {

class DateTime {
 public:
  virtual ~DateTime() = default;
  // Nanoseconds since boot (CLOCK_BOOTTIME): keeps counting through suspend
  // and never jumps with the wall clock.
  static std::uint64_t time_since_boot_ns();
};

}  // namespace ecu::lapi
