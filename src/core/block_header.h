// The 84-byte block header whose double SHA-256 is the block hash.
//
// Threads: a plain value.

#pragma once

#include <array>
#include <cstdint>

#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel {

//   version       4  little-endian
//   prev_hash    32  byte 0 first
//   merkle_root  32  byte 0 first
//   timestamp     8  little-endian, seconds since the Unix epoch
//   bits          4  little-endian, compact target
//   nonce         4  little-endian
struct BlockHeader {
  static constexpr size_t kSize = 84;

  uint32_t version = 1;
  uint256 prev_hash;
  uint256 merkle_root;
  uint64_t timestamp = 0;
  uint32_t bits = 0;
  uint32_t nonce = 0;

  Bytes serialize() const;

  // The same bytes without a heap allocation.
  std::array<uint8_t, kSize> to_array() const;

  // Reads a header at `offset` and advances it; throws std::runtime_error
  // ("Not enough data", or the hash reader's message) and leaves `offset`.
  static BlockHeader deserialize(ByteView data, size_t& offset);

  // Double SHA-256 of the 84 bytes; computed at each call.
  uint256 get_hash() const;

  // get_hash() is at most the target that `bits` stands for.
  bool check_proof_of_work() const;
};

}  // namespace norvel
