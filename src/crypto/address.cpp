#include "crypto/address.h"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "crypto/hash.h"

namespace norvel::crypto {

namespace {

constexpr size_t kChecksumBytes = 4;
constexpr size_t kPayloadBytes = 1 + kPublicKeyHashBytes;
constexpr size_t kAddressBytes = kPayloadBytes + kChecksumBytes;
static_assert(kAddressBytes == 25);

// A Base58 character stands for at least 0.73 bytes, so every longer text
// decodes to more than kAddressBytes.
constexpr size_t kAddressCharactersMax = 64;
constexpr const char kInvalidLength[] = "address_to_hash160: invalid address length";

}  // namespace

std::string hash160_to_address(const Bytes& hash, uint8_t version) {
  if (hash.size() != kPublicKeyHashBytes) {
    return "";
  }
  Bytes data;
  data.reserve(kAddressBytes);
  data.push_back(version);
  append(data, hash);
  append(data, ByteView(hash256(data).bytes()).first(kChecksumBytes));
  return base58_encode(data);
}

std::string pubkey_to_address(const Bytes& public_key, uint8_t version) {
  return hash160_to_address(hash160(public_key), version);
}

Bytes address_to_hash160(const std::string& address) {
  // Decoding is quadratic, and a client may send megabytes as an address.
  if (address.size() > kAddressCharactersMax && std::all_of(address.begin(), address.end(), is_base58_character)) {
    throw std::runtime_error(kInvalidLength);
  }
  const Bytes data = base58_decode(address);
  if (data.size() != kAddressBytes) {
    throw std::runtime_error(kInvalidLength);
  }
  const ByteView payload = ByteView(data).first(kPayloadBytes);
  const uint256 digest = hash256(payload);
  if (!std::equal(data.begin() + kPayloadBytes, data.end(), digest.bytes().begin())) {
    throw std::runtime_error("address_to_hash160: invalid checksum");
  }
  return Bytes(payload.begin() + 1, payload.end());
}

bool validate_address(const std::string& address) {
  try {
    address_to_hash160(address);
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace norvel::crypto
