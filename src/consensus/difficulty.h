// Proof-of-work targets: the compact 32-bit form, chain work, the difficulty
// shown to people, and one retarget step.
//
// Compact bits: the high byte is an exponent E (the target's length in bytes),
// the low 24 bits an unsigned mantissa M; the target is M * 256^(E - 3). Bit 23
// of the mantissa carries no sign when read and is never set when written.
//
// Threads: pure functions.

#pragma once

#include <cstdint>

#include "core/uint256.h"

namespace norvel::difficulty {

// 0x1e0fffff; constant-initialised, in a file of its own.
extern const uint32_t kEasiestBits;

inline constexpr uint32_t kHardestBits = 0x1b00ffff;  // target 0xffff * 2^192

// The target; bits of the mantissa pushed past bit 255 are lost.
uint256 bits_to_target(uint32_t bits);

// The compact form, cut to the three most significant bytes, or two when the
// first is 0x80 or more. A target below 256 keeps its byte in the mantissa's lowest place, which reads back as zero.
uint32_t target_to_bits(const uint256& target);

// `current_bits` scaled by actual_timespan / target_timespan (seconds), the
// ratio clamped to 10/11 and 11/10 and the target to the allowed range.
// Requires target_timespan > 0; throws std::runtime_error ("Division by zero")
// otherwise.
uint32_t calculate_next_difficulty(uint32_t current_bits, uint64_t actual_timespan, uint32_t target_timespan);

// Expected number of hashes for one block: 2^256 / (target + 1), modulo 2^256;
// so zero for a zero target, and zero for the target 2^256 - 1.
uint256 work_from_bits(uint32_t bits);

// Whether a header may carry these bits: within the allowed range as numbers,
// and at most 1 away from their own canonical form.
bool verify_bits(uint32_t bits);

// The easiest allowed target divided by that of `bits`; 1.0 for a zero target.
double get_difficulty(uint32_t bits);

}  // namespace norvel::difficulty
