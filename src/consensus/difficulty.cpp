#include "consensus/difficulty.h"

#include <algorithm>

namespace norvel::difficulty {

namespace {

constexpr size_t kMantissaBytes = 3;
constexpr uint32_t kMantissaMask = 0xffffff;
constexpr unsigned kExponentShift = 24;

// Index of the highest non-zero byte plus one; 0 for zero.
size_t significant_bytes(const uint256& value) {
  return static_cast<size_t>(value.highest_bit() + 8) / 8;
}

struct LeadingBytes {
  double value;
  int top;  // index of the highest non-zero byte
};

// The up to eight most significant bytes of a non-zero number.
LeadingBytes leading_bytes(const uint256& number) {
  const size_t size = significant_bytes(number);
  double value = 0.0;
  for (size_t i = size; i-- > (size > 8 ? size - 8 : 0);) {
    value = value * 256.0 + number.bytes()[i];
  }
  return {value, static_cast<int>(size) - 1};
}

}  // namespace

uint256 bits_to_target(uint32_t bits) {
  const size_t exponent = bits >> kExponentShift;
  const uint32_t mantissa = bits & kMantissaMask;
  if (exponent <= kMantissaBytes) {
    return uint256(uint64_t{mantissa} >> (8 * (kMantissaBytes - exponent)));
  }
  uint256 target;
  for (size_t i = 0; i < kMantissaBytes; ++i) {
    const size_t at = exponent - kMantissaBytes + i;
    if (at < uint256::kSize) {
      target.bytes()[at] = static_cast<uint8_t>(mantissa >> (8 * i));
    }
  }
  return target;
}

uint32_t target_to_bits(const uint256& target) {
  const auto& bytes = target.bytes();
  const size_t size = significant_bytes(target);
  if (size <= 1) {
    return size == 0 ? 0 : 0x01000000u | bytes[0];
  }
  uint32_t mantissa = static_cast<uint32_t>(bytes[size - 1]) << 16 | static_cast<uint32_t>(bytes[size - 2]) << 8;
  if (size >= kMantissaBytes) {
    mantissa |= bytes[size - 3];
  }
  const auto exponent = static_cast<uint32_t>(size);
  if (mantissa > 0x7fffff) {
    return mantissa >> 8 | (exponent + 1) << kExponentShift;
  }
  return mantissa | exponent << kExponentShift;
}

uint32_t calculate_next_difficulty(uint32_t current_bits, uint64_t actual_timespan, uint32_t target_timespan) {
  const uint64_t expected = target_timespan;
  const uint64_t span = std::min(expected * 11 / 10, std::max(expected * 10 / 11, actual_timespan));
  uint256 target = bits_to_target(current_bits) * span / expected;
  target = std::min(target, bits_to_target(kEasiestBits));
  target = std::max(target, bits_to_target(kHardestBits));
  return target_to_bits(target);
}

uint256 work_from_bits(uint32_t bits) {
  const uint256 target = bits_to_target(bits);
  const uint256 divisor = target + uint256(uint64_t{1});
  if (divisor.is_zero()) {
    return uint256();
  }
  return ~target / divisor + uint256(uint64_t{1});
}

bool verify_bits(uint32_t bits) {
  if (bits < kHardestBits || bits > kEasiestBits) {
    return false;
  }
  const uint32_t canonical = target_to_bits(bits_to_target(bits));
  return canonical == bits || canonical == bits - 1 || canonical == bits + 1;
}

double get_difficulty(uint32_t bits) {
  const uint256 target = bits_to_target(bits);
  if (target.is_zero()) {
    return 1.0;
  }
  LeadingBytes easiest = leading_bytes(bits_to_target(kEasiestBits));
  LeadingBytes current = leading_bytes(target);
  for (; easiest.top > current.top; --easiest.top) {
    easiest.value *= 256.0;
  }
  for (; current.top > easiest.top; --current.top) {
    current.value *= 256.0;
  }
  return easiest.value / current.value;
}

}  // namespace norvel::difficulty
