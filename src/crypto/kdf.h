// Password-based key derivation: PBKDF2 (RFC 8018) and scrypt (RFC 7914).
//
// Errors: std::runtime_error whose message begins with the function's name.
// Threads: free functions without state.

#pragma once

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"

namespace norvel::crypto {

inline constexpr size_t kDerivedKeyBytesMax = 64;

// `key_len` bytes, 1 to 64, by `iterations` rounds, at least 1, of HMAC-SHA-256.
Bytes pbkdf2_hmac_sha256(const Bytes& password, const Bytes& salt, uint32_t iterations, size_t key_len);

// `key_len` bytes, 1 to 64. N is a power of two, at least 2; r and p are above
// zero. Uses about N * r * 128 bytes of memory, and is refused above N * r * 256
// bytes, which small values of N with a large p exceed (N = 2 always does).
Bytes scrypt_kdf(const Bytes& password, const Bytes& salt, uint64_t N, uint32_t r, uint32_t p, size_t key_len);

}  // namespace norvel::crypto
