// The deterministic nonce of RFC 6979, section 3.2, on secp256k1 with
// HMAC-SHA-256; for the .cpp files of this folder. Threads: no state.

#pragma once

#include "core/bytes.h"
#include "crypto/curve.h"

namespace norvel::crypto {

// The nonce k, in [1, n - 1] and marked for constant-time arithmetic, for a
// 32-byte private key and the hash `message`, of which at most the first 32
// bytes count. nullptr when an OpenSSL call fails.
BigNumber rfc6979_nonce(const Curve& curve, ByteView message, ByteView private_key);

}  // namespace norvel::crypto
