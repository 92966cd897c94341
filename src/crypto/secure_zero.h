// Wiping of secrets in a way that the optimiser keeps. Threads: no state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/bytes.h"

namespace norvel::crypto {

// Zeroes `size` bytes at `data`; a size of 0 does nothing.
void secure_zero(void* data, size_t size);

// Zeroes the contents and leaves `data` empty, its capacity kept.
void secure_zero(Bytes& data);

// Zeroes a range when it goes out of scope, also through an exception. The range
// must outlive it and must not be reallocated.
class WipeOnExit {
 public:
  explicit WipeOnExit(std::span<uint8_t> range) : range_(range) {}
  ~WipeOnExit() { secure_zero(range_.data(), range_.size()); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  std::span<uint8_t> range_;
};

}  // namespace norvel::crypto
