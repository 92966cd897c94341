#include "core/uint256.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

namespace norvel {

namespace {

constexpr size_t kSize = uint256::kSize;
constexpr size_t kHexDigits = 2 * kSize;
constexpr const char kDivisionByZero[] = "Division by zero";

// Word `index` of 64 bits, 0 the least significant.
uint64_t word64(const std::array<uint8_t, kSize>& bytes, size_t index) {
  static_assert(std::endian::native == std::endian::little);
  uint64_t word = 0;
  std::memcpy(&word, bytes.data() + 8 * index, sizeof word);
  return word;
}

}  // namespace

uint256::uint256(const std::string& hex) {
  std::string digits = hex.starts_with("0x") ? hex.substr(2) : hex;
  if (digits.size() < kHexDigits) {
    digits.insert(0, kHexDigits - digits.size(), '0');
  }
  for (size_t i = 0; i < kHexDigits; i += 2) {
    bytes_[kSize - 1 - i / 2] = static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16));
  }
}

uint256::uint256(ByteView bytes) {
  const size_t len = std::min(bytes.size(), kSize);
  std::copy_n(bytes.begin(), len, bytes_.begin());
}

uint256::uint256(uint64_t value) {
  const auto low = to_le(value);
  std::copy(low.begin(), low.end(), bytes_.begin());
}

uint256 uint256::deserialize(ByteView data, size_t& offset) {
  return uint256(take(data, offset, kSize, "Not enough bytes to deserialize uint256"));
}

std::string uint256::to_hex() const {
  constexpr const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(kHexDigits);
  for (size_t i = kSize; i-- > 0;) {
    text += kDigits[bytes_[i] >> 4];
    text += kDigits[bytes_[i] & 0x0f];
  }
  return text;
}

uint64_t uint256::low64() const {
  return word64(bytes_, 0);
}

double uint256::to_double() const {
  double value = 0.0;
  for (size_t i = kSize; i-- > 0;) {
    // The product with 256 is exact, so the sum is rounded once, as if fused.
    value = value * 256.0 + bytes_[i];
  }
  return value;
}

int uint256::highest_bit() const {
  for (size_t i = kSize; i-- > 0;) {
    if (bytes_[i] != 0) {
      return static_cast<int>(8 * i) + std::bit_width(bytes_[i]) - 1;
    }
  }
  return -1;
}

std::strong_ordering uint256::operator<=>(const uint256& other) const {
  for (size_t i = kSize / 8; i-- > 0;) {
    const auto order = word64(bytes_, i) <=> word64(other.bytes_, i);
    if (order != 0) {
      return order;
    }
  }
  return std::strong_ordering::equal;
}

uint256 uint256::operator+(const uint256& other) const {
  uint256 sum;
  unsigned carry = 0;
  for (size_t i = 0; i < kSize; ++i) {
    carry += static_cast<unsigned>(bytes_[i]) + other.bytes_[i];
    sum.bytes_[i] = static_cast<uint8_t>(carry);
    carry >>= 8;
  }
  return sum;
}

uint256 uint256::operator-(const uint256& other) const {
  uint256 difference;
  unsigned borrow = 0;
  for (size_t i = 0; i < kSize; ++i) {
    const unsigned step = 256u + bytes_[i] - other.bytes_[i] - borrow;
    difference.bytes_[i] = static_cast<uint8_t>(step);
    borrow = step < 256 ? 1 : 0;
  }
  return difference;
}

uint256 uint256::operator*(uint64_t multiplier) const {
  uint256 product;
  uint64_t carry = 0;
  for (size_t i = 0; i < kSize; ++i) {
    const uint64_t step = carry + bytes_[i] * multiplier;
    product.bytes_[i] = static_cast<uint8_t>(step);
    carry = step >> 8;
  }
  return product;
}

uint256 uint256::operator/(uint64_t divisor) const {
  if (divisor == 0) {
    throw std::runtime_error(kDivisionByZero);
  }
  uint256 quotient;
  uint64_t remainder = 0;
  for (size_t i = kSize; i-- > 0;) {
    remainder = remainder * 256 + bytes_[i];
    quotient.bytes_[i] = static_cast<uint8_t>(remainder / divisor);
    remainder %= divisor;
  }
  return quotient;
}

uint256 uint256::operator/(const uint256& divisor) const {
  const int divisor_bit = divisor.highest_bit();
  if (divisor_bit < 0) {
    throw std::runtime_error(kDivisionByZero);
  }
  uint256 quotient;
  int shift = highest_bit() - divisor_bit;
  if (shift < 0) {
    return quotient;
  }
  uint256 remainder = *this;
  for (uint256 part = divisor << static_cast<unsigned>(shift); shift >= 0; --shift, part = part >> 1) {
    if (remainder >= part) {
      remainder = remainder - part;
      uint8_t& byte = quotient.bytes_[static_cast<size_t>(shift) / 8];
      byte = static_cast<uint8_t>(byte | (1u << (shift % 8)));
    }
  }
  return quotient;
}

uint256 uint256::operator<<(unsigned n) const {
  uint256 shifted;
  if (n > 255) {
    return shifted;
  }
  const size_t bytes = n / 8;
  const unsigned bits = n % 8;
  for (size_t i = bytes; i < kSize; ++i) {
    const unsigned high = static_cast<unsigned>(bytes_[i - bytes]) << bits;
    const unsigned low = i > bytes ? static_cast<unsigned>(bytes_[i - bytes - 1]) >> (8 - bits) : 0u;
    shifted.bytes_[i] = static_cast<uint8_t>(high | low);
  }
  return shifted;
}

uint256 uint256::operator>>(unsigned n) const {
  uint256 shifted;
  if (n > 255) {
    return shifted;
  }
  const size_t bytes = n / 8;
  const unsigned bits = n % 8;
  for (size_t i = 0; i + bytes < kSize; ++i) {
    const size_t from = i + bytes;
    const unsigned low = static_cast<unsigned>(bytes_[from]) >> bits;
    const unsigned high = from + 1 < kSize ? static_cast<unsigned>(bytes_[from + 1]) << (8 - bits) : 0u;
    shifted.bytes_[i] = static_cast<uint8_t>(high | low);
  }
  return shifted;
}

uint256 uint256::operator~() const {
  uint256 inverted;
  for (size_t i = 0; i < kSize; ++i) {
    inverted.bytes_[i] = static_cast<uint8_t>(~bytes_[i]);
  }
  return inverted;
}

}  // namespace norvel
