// One block as it stands in a block file.
//
//   length  4  little-endian, of the block that follows
//   block   v  as Block::serialize() writes it
//
// Threads: free functions without state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "core/block.h"
#include "core/bytes.h"

namespace norvel {

// A longer record stops a scan.
inline constexpr uint32_t kRecordBytesMax = 10'000'000;
static_assert(kRecordBytesMax > kBlockBytesMax);

// Bytes of the length.
inline constexpr size_t kRecordPrefixBytes = 4;

Bytes make_record(const Block& block);

// The block at the start of `bytes`, which begin behind the length, when it
// decodes and its transactions are those of its Merkle root; what follows it is ignored.
std::optional<Block> read_record(ByteView bytes);

}  // namespace norvel
