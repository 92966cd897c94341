// Small helpers of the tests in this folder.

#pragma once

#include <exception>
#include <random>
#include <string>
#include <string_view>

#include "core/bytes.h"

namespace norvel::crypto {

inline Bytes bytes_of(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

inline Bytes joined(Bytes front, const Bytes& back) {
  append(front, back);
  return front;
}

inline Bytes random_bytes(std::mt19937_64& random, size_t count) {
  Bytes bytes(count);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random());
  }
  return bytes;
}

// The message of the std::exception that `call` throws; "(none)" when it returns.
template <typename Call>
std::string thrown_by(Call call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "(none)";
}

}  // namespace norvel::crypto
