// ECDSA on secp256k1 over a digest that the caller has made (32 bytes; longer
// ones count with their first 32 bytes, as in FIPS 186-4).
//
// Threads: safe from any thread; verification keeps one key object per thread.

#pragma once

#include <cstddef>

#include "core/bytes.h"

namespace norvel::crypto {

// A sequence of two integers below 2^256, each with a sign byte at most.
inline constexpr size_t kDerSignatureBytesMax = 2 + 2 * (2 + 33);

// The DER-encoded signature of `message`, its nonce chosen by RFC 6979 with
// HMAC-SHA-256 and s in the lower half of the group order: equal inputs give
// equal bytes, at most 71. Throws std::runtime_error
// ("sign_message_deterministic: ...") when the key is not 32 bytes or not a
// scalar in [1, n - 1].
Bytes sign_message_deterministic(ByteView message, const Bytes& private_key);

// Same as sign_message_deterministic().
Bytes sign_message(ByteView message, const Bytes& private_key);

// Whether `signature` is the one DER encoding of some r and s in [1, n - 1], s
// in either half, that are valid for `message` and the 33-byte `public_key`.
// Any malformed argument gives false; never throws on bad input.
bool verify_signature(ByteView message, ByteView signature, const Bytes& public_key);

}  // namespace norvel::crypto
