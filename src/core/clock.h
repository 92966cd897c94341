// The wall clock as the byte formats count it.

#pragma once

#include <cstdint>

namespace norvel {

// Seconds since the Unix epoch by the system clock; 0 before it.
uint64_t unix_time_seconds();

}  // namespace norvel
