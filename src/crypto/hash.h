// The digests of the system, FIPS 180-4 SHA-256 and RIPEMD-160, through
// OpenSSL.
//
// A digest returned as a uint256 holds the bytes in the order in which the
// function emits them, so to_hex() prints the published digest reversed.
//
// Errors: the functions throw std::runtime_error when OpenSSL refuses (no such
// digest in the loaded providers). Threads: safe from any thread; each keeps one digest context, and
// sha256() and hash256() allocate nothing after a thread's first call.

#pragma once

#include <memory>

#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel::crypto {

uint256 sha256(ByteView data);

// SHA-256 of the SHA-256 digest.
uint256 hash256(ByteView data);

// hash256 of many byte strings that begin alike: the common part is hashed once.
// Threads: finish() from any.
class Hash256Prefix {
 public:
  // Throws std::runtime_error when the loaded providers have no SHA-256,
  // std::bad_alloc when OpenSSL refuses anything else: memory is all it can lack.
  explicit Hash256Prefix(ByteView prefix);
  ~Hash256Prefix();
  Hash256Prefix(Hash256Prefix&&) noexcept;
  Hash256Prefix& operator=(Hash256Prefix&&) noexcept;

  // hash256 of the prefix followed by `end`; any number of times. Not of an object
  // that was moved from. Throws std::bad_alloc when OpenSSL refuses to hash `end`,
  // for the same reason, and what sha256() throws.
  uint256 finish(ByteView end) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// RIPEMD-160 of the SHA-256 digest, 20 bytes.
Bytes hash160(ByteView data);

}  // namespace norvel::crypto
