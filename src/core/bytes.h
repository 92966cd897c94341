// Byte strings and the bounds-checked readers and writers through which every
// byte format of the system passes.
//
// Errors: readers throw std::runtime_error with the caller's message and leave
// the offset as it was. Threads: free functions without state.

#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace norvel {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

inline constexpr const char kNotEnoughData[] = "Not enough data";

// Returns data[offset, offset + len) and moves `offset` past it. Throws
// std::runtime_error(message) when fewer bytes remain.
ByteView take(ByteView data, size_t& offset, size_t len, const char* message = kNotEnoughData);

// Reads sizeof(T) bytes, least significant first; otherwise as take().
template <std::unsigned_integral T>
T read_le(ByteView data, size_t& offset, const char* message = kNotEnoughData) {
  T value = 0;
  size_t shift = 0;
  for (const uint8_t byte : take(data, offset, sizeof(T), message)) {
    value = static_cast<T>(value | static_cast<T>(static_cast<T>(byte) << shift));
    shift += 8;
  }
  return value;
}

// The sizeof(T) bytes of `value`, least significant first.
template <std::unsigned_integral T>
constexpr std::array<uint8_t, sizeof(T)> to_le(T value) {
  std::array<uint8_t, sizeof(T)> bytes{};
  for (size_t i = 0; i < sizeof(T); ++i) {
    bytes[i] = static_cast<uint8_t>(value >> (8 * i));
  }
  return bytes;
}

void append(Bytes& out, ByteView tail);

// Appends sizeof(T) bytes, least significant first.
template <std::unsigned_integral T>
void append_le(Bytes& out, T value) {
  append(out, to_le(value));
}

}  // namespace norvel
