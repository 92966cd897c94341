#include "core/clock.h"

#include <time.h>

namespace norvel {

uint64_t unix_time_seconds() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_epoch).count();
  return seconds > 0 ? static_cast<uint64_t>(seconds) : 0;
}

std::chrono::nanoseconds coarse_monotonic_time() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace norvel
