// Printable addresses: Base58Check over a version byte and a public-key hash.
//
//   version    1  0x00 throughout the system, so that addresses begin with '1'
//   hash      20  hash160 of the public key
//   checksum   4  first bytes of hash256 of the 21 bytes before
//
// Threads: free functions without state.

#pragma once

#include <cstdint>
#include <string>

#include "core/bytes.h"
#include "crypto/base58.h"

namespace norvel::crypto {

inline constexpr size_t kPublicKeyHashBytes = 20;

// The address of a 20-byte hash; an empty string when it has another size.
std::string hash160_to_address(const Bytes& hash, uint8_t version);

// The address of a serialized public key, whose size is not checked.
std::string pubkey_to_address(const Bytes& public_key, uint8_t version);

// The 20-byte hash inside `address`, made with any version byte. Throws
// std::runtime_error: "base58_decode: invalid character",
// "address_to_hash160: invalid address length" (not 25 bytes) or
// "address_to_hash160: invalid checksum". Linear in the length of the text.
Bytes address_to_hash160(const std::string& address);

// Whether address_to_hash160() returns. Never throws.
bool validate_address(const std::string& address);

}  // namespace norvel::crypto
