#include "crypto/hex.h"

#include <array>
#include <string_view>

namespace norvel::crypto {

namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr uint8_t kNoDigit = 0xff;

// Digit values by character, kNoDigit for other characters.
constexpr std::array<uint8_t, 256> make_digit_values() {
  std::array<uint8_t, 256> values{};
  values.fill(kNoDigit);
  for (uint8_t value = 0; value < 16; ++value) {
    values[static_cast<uint8_t>(kDigits[value])] = value;
  }
  for (uint8_t value = 10; value < 16; ++value) {
    values[static_cast<size_t>('A' + value - 10)] = value;
  }
  return values;
}

constexpr std::array<uint8_t, 256> kDigitValues = make_digit_values();

uint8_t pair_to_byte(char first, char second) {
  const uint8_t high = kDigitValues[static_cast<uint8_t>(first)];
  const uint8_t low = kDigitValues[static_cast<uint8_t>(second)];
  if (high != kNoDigit && low != kNoDigit) {
    return static_cast<uint8_t>(high << 4 | low);
  }
  return static_cast<uint8_t>(std::stoul(std::string{first, second}, nullptr, 16));
}

}  // namespace

Bytes hex_to_bytes(const std::string& text) {
  std::string_view digits = text;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    digits.remove_prefix(2);
  }
  Bytes bytes;
  bytes.reserve((digits.size() + 1) / 2);
  if (digits.size() % 2 != 0) {
    bytes.push_back(pair_to_byte('0', digits.front()));
    digits.remove_prefix(1);
  }
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(pair_to_byte(digits[i], digits[i + 1]));
  }
  return bytes;
}

std::string bytes_to_hex(ByteView bytes) {
  std::string text(2 * bytes.size(), '0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 0x0f];
  }
  return text;
}

}  // namespace norvel::crypto
