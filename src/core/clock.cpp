#include "core/clock.h"

#include <time.h>

namespace norvel {

namespace {

std::chrono::nanoseconds read_clock(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

uint64_t unix_time_seconds() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_epoch).count();
  return seconds > 0 ? static_cast<uint64_t>(seconds) : 0;
}

std::chrono::nanoseconds coarse_monotonic_time() {
  return read_clock(CLOCK_MONOTONIC_COARSE);
}

std::chrono::nanoseconds thread_processor_time() {
  return read_clock(CLOCK_THREAD_CPUTIME_ID);
}

}  // namespace norvel
