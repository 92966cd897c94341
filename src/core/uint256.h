// The unsigned 256-bit integer of the system: transaction ids, block hashes,
// Merkle roots, proof-of-work targets and amounts of chain work.
//
// Invariant: 32 bytes, byte 0 least significant; no heap storage.
// Threads: a plain value.

#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

#include "core/bytes.h"

namespace norvel {

class uint256 {
 public:
  static constexpr size_t kSize = 32;

  constexpr uint256() = default;

  // Text form, most significant digit first: an optional "0x" (lower-case x),
  // then up to 64 digits, padded with zeros on the left when fewer; characters
  // after the 64th are ignored. A pair of characters that does not begin with a
  // hexadecimal number throws std::invalid_argument ("stoul").
  explicit uint256(const std::string& hex);

  // Bytes 0 upward from `bytes`: missing ones are zero, those after the 32nd
  // are ignored.
  explicit uint256(ByteView bytes);
  explicit uint256(const Bytes& bytes) : uint256(ByteView(bytes)) {}

  explicit uint256(uint64_t value);

  static uint256 from_hex(const std::string& hex) { return uint256(hex); }

  // 32 bytes, byte 0 first.
  Bytes to_bytes() const { return Bytes(bytes_.begin(), bytes_.end()); }
  Bytes serialize() const { return to_bytes(); }

  // Reads 32 bytes at `offset` and advances it. Throws std::runtime_error
  // ("Not enough bytes to deserialize uint256") and leaves `offset` when fewer
  // remain.
  static uint256 deserialize(ByteView data, size_t& offset);

  // 64 lower-case digits, byte 31 first.
  std::string to_hex() const;

  // Bytes 0 to 7, little-endian.
  uint64_t low64() const;

  // value = value * 256 + byte, from byte 31 down, rounded at each step.
  double to_double() const;

  // Index of the most significant set bit, 0 to 255; -1 for zero.
  int highest_bit() const;

  bool is_zero() const { return *this == uint256(); }

  // The bytes in place, byte 0 first.
  const std::array<uint8_t, kSize>& bytes() const { return bytes_; }
  std::array<uint8_t, kSize>& bytes() { return bytes_; }

  bool operator==(const uint256& other) const = default;
  std::strong_ordering operator<=>(const uint256& other) const;

  // All arithmetic is modulo 2^256.
  uint256 operator+(const uint256& other) const;
  uint256 operator-(const uint256& other) const;

  // Exact modulo 2^256 for multipliers up to 2^56; the 64-bit step of each byte
  // wraps for larger ones.
  uint256 operator*(uint64_t multiplier) const;

  // Long division by bytes; exact for divisors up to 2^56, the 64-bit running
  // remainder wraps for larger ones. Throws std::runtime_error ("Division by
  // zero").
  uint256 operator/(uint64_t divisor) const;

  // Shift-and-subtract long division. Throws as above.
  uint256 operator/(const uint256& divisor) const;

  // Zero-filled; zero for n above 255.
  uint256 operator<<(unsigned n) const;
  uint256 operator>>(unsigned n) const;

  uint256 operator~() const;

 private:
  std::array<uint8_t, kSize> bytes_{};
};

}  // namespace norvel
