#include "bench/core_clock.h"

#include <chrono>
#include <cstdint>

#include "core/clock.h"

namespace norvel::bench {

double measure_core_ghz() {
  constexpr int kMultiplications = 10'000'000;
  constexpr int kCyclesEach = 3;  // a 64-bit multiplication, on the x86-64 cores of the last fifteen years
  uint64_t product = 3;
  const auto start = thread_processor_time();
  for (int i = 0; i < kMultiplications; ++i) {
    product *= product;
    asm volatile("" : "+r"(product));  // each product is needed, in a register
  }
  return kMultiplications * kCyclesEach / static_cast<double>((thread_processor_time() - start).count());
}

}  // namespace norvel::bench
