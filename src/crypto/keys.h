// Keys on secp256k1 (SEC 2): private keys are 32 bytes, a big-endian scalar in
// [1, n - 1]; public keys are 33 bytes, the compressed form of SEC 1.
//
// Errors: std::runtime_error whose message begins with the function's name.
// Threads: safe from any thread. Intermediate secrets are wiped; the caller
// wipes what is returned.

#pragma once

#include <cstddef>
#include <utility>

#include "core/bytes.h"

namespace norvel::crypto {

inline constexpr size_t kPrivateKeyBytes = 32;
inline constexpr size_t kPublicKeyBytes = 33;

// A new random key pair: the private key, then its public key.
std::pair<Bytes, Bytes> generate_keypair();

// The public key of `private_key`. Throws when that is not 32 bytes, zero, or
// not below the group order.
Bytes derive_public_key(const Bytes& private_key);

}  // namespace norvel::crypto
