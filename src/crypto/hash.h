// The digests of the system, FIPS 180-4 SHA-256 and RIPEMD-160, through
// OpenSSL.
//
// A digest returned as a uint256 holds the bytes in the order in which the
// function emits them, so to_hex() prints the published digest reversed.
//
// Errors: std::runtime_error when OpenSSL refuses (no such digest in the loaded
// providers). Threads: safe from any thread; each keeps one digest context, and
// sha256() and hash256() allocate nothing after a thread's first call.

#pragma once

#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel::crypto {

uint256 sha256(ByteView data);

// SHA-256 of the SHA-256 digest.
uint256 hash256(ByteView data);

// RIPEMD-160 of the SHA-256 digest, 20 bytes.
Bytes hash160(ByteView data);

}  // namespace norvel::crypto
