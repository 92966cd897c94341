#include "bench/core_clock.h"

#include <time.h>

#include <cstdint>

namespace norvel::bench {

namespace {

// Processor time of this thread: what others take away is not the clock's fault.
double thread_time_ns() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

}  // namespace

double measure_core_ghz() {
  constexpr int kMultiplications = 10'000'000;
  constexpr int kCyclesEach = 3;  // a 64-bit multiplication, on the x86-64 cores of the last fifteen years
  uint64_t product = 3;
  const double start_ns = thread_time_ns();
  for (int i = 0; i < kMultiplications; ++i) {
    product *= product;
    asm volatile("" : "+r"(product));  // each product is needed, in a register
  }
  return kMultiplications * kCyclesEach / (thread_time_ns() - start_ns);
}

}  // namespace norvel::bench
