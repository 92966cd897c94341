// For programs that link allocations.cpp, which takes the place of the
// allocator: measures the heap and lets it fail.

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

namespace norvel {

struct Allocations {
  static constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

  uint64_t count = 0;
  uint64_t first_failing = kNever;  // those that become numbers `first_failing` to `last_failing` fail
  uint64_t last_failing = kNever;
  size_t largest_bytes = 0;  // asked for at once
  size_t live_bytes = 0;     // with the heap's own
  size_t peak_bytes = 0;
};

// Of this thread: the threads of libraries are left in peace.
inline thread_local Allocations allocations;

}  // namespace norvel
