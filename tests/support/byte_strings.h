// Byte strings as tests write them down.

#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>

#include "core/bytes.h"
#include "crypto/hex.h"

namespace norvel {

// Bytes of hexadecimal text that may be spaced for reading.
inline Bytes hex(std::string text) {
  std::erase(text, ' ');
  return crypto::hex_to_bytes(text);
}

inline Bytes join(std::initializer_list<Bytes> parts) {
  Bytes whole;
  for (const Bytes& part : parts) {
    append(whole, part);
  }
  return whole;
}

// The bytes of `whole` before `end`.
inline Bytes cut(const Bytes& whole, size_t end) {
  return Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(end));
}

inline Bytes bytes_of(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

}  // namespace norvel
