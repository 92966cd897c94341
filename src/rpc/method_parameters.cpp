#include "rpc/method_parameters.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "crypto/address.h"
#include "crypto/hex.h"

namespace norvel::rpc {

namespace {

// "0x" in front of hexadecimal digits, which the decoder drops.
size_t prefix_characters(const std::string& text) {
  return text.starts_with("0x") || text.starts_with("0X") ? 2 : 0;
}

}  // namespace

const JsonValue& find_parameter(const JsonValue& params, const std::string& key, size_t index) {
  return params.type == JsonType::kArray ? params[index] : params.get(key);
}

const std::string& require_text(const JsonValue& params, const std::string& key, const char* missing) {
  const JsonValue& value = find_parameter(params, key);
  if (value.string.empty()) {
    throw std::runtime_error(missing);
  }
  return value.string;
}

std::optional<uint256> read_hash(const std::string& text) {
  const auto is_digit = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
  if (text.size() != 2 * uint256::kSize || !std::ranges::all_of(text, is_digit)) {
    return std::nullopt;
  }
  return uint256::from_hex(text);
}

std::optional<Bytes> read_address(const std::string& text) {
  if (text.size() > kAddressCharactersMax) {
    return std::nullopt;
  }
  try {
    return crypto::address_to_hash160(text);
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

AddressParameter require_address(const JsonValue& params) {
  const std::string& text = require_text(params, "address", "Address required");
  std::optional<Bytes> hash = read_address(text);
  if (!hash) {
    throw std::runtime_error(kInvalidAddress);
  }
  return {text, std::move(*hash)};
}

Bytes read_hex(const std::string& text, size_t bytes_max, const char* too_long) {
  if (text.size() - prefix_characters(text) > 2 * bytes_max) {
    throw std::runtime_error(too_long);
  }
  try {
    return crypto::hex_to_bytes(text);
  } catch (const std::invalid_argument&) {
    throw std::runtime_error("invalid hexadecimal");
  }
}

}  // namespace norvel::rpc
