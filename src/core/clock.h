// The wall clock as the byte formats count it, and a cheap monotonic clock.

#pragma once

#include <chrono>
#include <cstdint>

namespace norvel {

// Seconds since the Unix epoch by the system clock; 0 before it.
uint64_t unix_time_seconds();

// The monotonic clock as of the system's last tick, some milliseconds ago at
// most; a fifth of the cost of reading it, for loops that look all the time.
std::chrono::nanoseconds coarse_monotonic_time();

// What the calling thread has used of its processor; what others took of it does not count.
std::chrono::nanoseconds thread_processor_time();

}  // namespace norvel
