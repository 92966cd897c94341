#include "rpc/basic_auth.h"

#include <cstdint>
#include <utility>

#include "core/bytes.h"
#include "crypto/hash.h"

namespace norvel::rpc {

namespace {

constexpr std::string_view kPrefixes[] = {"Authorization: Basic ", "authorization: basic "};
constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// What follows the prefix up to the end of its line.
std::optional<std::string_view> encoded_credentials(std::string_view raw) {
  for (const std::string_view prefix : kPrefixes) {
    const size_t at = raw.find(prefix);
    if (at != std::string_view::npos) {
      std::string_view value = raw.substr(at + prefix.size());
      value = value.substr(0, value.find("\r\n"));
      return value.substr(0, value.find_last_not_of(" \t") + 1);
    }
  }
  return std::nullopt;
}

// Compares digests: neither the place of a difference nor the length shows.
bool equal_in_constant_time(std::string_view left, std::string_view right) {
  const auto digest = [](std::string_view text) {
    return crypto::sha256({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  };
  const uint256 left_digest = digest(left);
  const uint256 right_digest = digest(right);
  volatile uint8_t difference = 0;
  for (size_t i = 0; i < left_digest.bytes().size(); ++i) {
    difference = static_cast<uint8_t>(difference | (left_digest.bytes()[i] ^ right_digest.bytes()[i]));
  }
  return difference == 0;
}

}  // namespace

std::optional<std::string> decode_base64(std::string_view text) {
  if (text.size() % 4 == 0) {
    for (int padding = 0; padding < 2 && text.ends_with('='); ++padding) {
      text.remove_suffix(1);
    }
  }
  if (text.size() % 4 == 1) {
    return std::nullopt;
  }
  std::string decoded;
  uint32_t bits = 0;
  int bit_count = 0;
  for (const char c : text) {
    const size_t digit = kAlphabet.find(c);
    if (digit == std::string_view::npos) {
      return std::nullopt;
    }
    bits = bits << 6 | static_cast<uint32_t>(digit);
    bit_count += 6;
    if (bit_count >= 8) {
      bit_count -= 8;
      decoded += static_cast<char>(bits >> bit_count & 0xff);
    }
  }
  return decoded;
}

BasicAuth::BasicAuth(const std::string& user, const std::string& password)
    : is_open_(user.empty() && password.empty()), expected_(user + ":" + password) {}

bool BasicAuth::accepts(std::string_view raw) const {
  if (is_open_) {
    return true;
  }
  const auto encoded = encoded_credentials(raw);
  const auto given = encoded ? decode_base64(*encoded) : std::nullopt;
  return given && equal_in_constant_time(*given, expected_);
}

}  // namespace norvel::rpc
