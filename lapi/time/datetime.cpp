#include "lapi/time/datetime.h"

#include <ctime>

namespace ecu::lapi {

std::uint64_t DateTime::time_since_boot_ns() {
  timespec ts{};
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

}  // namespace ecu::lapi
