// Keys and values of the chain-state database. Integers are little-endian,
// hashes as uint256 serializes them.
//
// Decoders return nothing for bytes that are not such a value. Threads: free
// functions without state.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "chain/block_index.h"
#include "consensus/treasury_state.h"
#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel {

inline constexpr const char kChainStateKey[] = "chain_state";
inline constexpr const char kTreasuryStateKey[] = "treasury_state";
inline constexpr const char kBlockKeyPrefix[] = "blk_";

// What "chain_state" holds.
//
//   best hash     32
//   best height    4
//   total supply   8  absent in an old form of 36 bytes, which reads as 0
struct ChainTip {
  uint256 best_hash;
  uint32_t best_height = 0;
  int64_t total_supply = 0;  // base units; never negative

  bool operator==(const ChainTip&) const = default;
};

Bytes encode_chain_tip(const ChainTip& tip);
std::optional<ChainTip> decode_chain_tip(ByteView value);

// "blk_" and the hash as 64 lower-case digits.
std::string block_key(const uint256& hash);

//   hash           32
//   previous hash  32
//   height          4
//   timestamp       8
//   bits            4
//   chain work      8  its low 64 bits; read back widened to 256
//   file name       v  to the end of the value; one that leads out of its
//                      directory is refused
Bytes encode_block_index(const BlockIndex& entry);
std::optional<BlockIndex> decode_block_index(ByteView value);

//   balance                   8
//   last distribution height  4
//   distribution pool         8
//   pending                   1  0 or 1
//   miner count N             4
//   N times, by address: key length 2, key, blocks 4
//   pending miner count M     4
//   M times, likewise
Bytes encode_treasury(const TreasuryState& state);

// Refuses negative amounts, addresses that do not ascend and bytes left over.
// Leaves distribution_interval at its default: it is no part of the value.
std::optional<TreasuryState> decode_treasury(ByteView value);

// One counted map of encode_treasury(), which block undo records share.
void append_miner_counts(Bytes& out, const MinerBlockCounts& counts);

// The pieces of encode_treasury(), for readers that tell them apart: the four
// fields before the maps, and one map. Both throw std::runtime_error, leaving
// `offset`.
void read_treasury_amounts(ByteView data, size_t& offset, TreasuryState& state);
MinerBlockCounts read_miner_counts(ByteView data, size_t& offset);

}  // namespace norvel
