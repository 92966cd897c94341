// Everything that takes one connected block back from the state, without the
// block itself and without older blocks.
//
// Threads: plain values.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "chain/derived_indexes.h"
#include "consensus/treasury_state.h"
#include "core/bytes.h"
#include "core/transaction.h"
#include "core/uint256.h"

namespace norvel {

// The treasury before a block. Whole maps are kept only where the block replaces
// them, at the two heights around a distribution.
struct TreasuryUndo {
  int64_t balance = 0;
  uint32_t last_distribution_height = 0;
  int64_t distribution_pool = 0;
  bool distribution_pending = false;
  std::string counted_miner;  // whose count grew by one; empty for none, and where the whole map is kept
  std::optional<MinerBlockCounts> miner_block_counts;
  std::optional<MinerBlockCounts> pending_miner_counts;

  bool operator==(const TreasuryUndo&) const = default;
};

// Integers are little-endian.
//
//   previous tip           32
//   previous supply         8
//   transaction count       4
//     txid                 32  in block order
//     output count          2
//     repeated              1  1 when an earlier block holds the same id
//     previous height       4  only then
//     hash count            4
//       public-key hash    20  the transaction was added to its list
//   restored count          4
//     outpoint             36
//     length L              4
//     output                L
//   treasury balance        8
//   last distribution       4
//   distribution pool       8
//   pending                 1
//   length of miner         1  0 for none
//   counted miner           v
//   has counts              1
//     miner counts          v  append_miner_counts(), only then
//   has pending counts      1
//     pending counts        v  likewise
//   revealed count          4
//     length                1
//     address               v
struct BlockUndo {
  uint256 prev_hash;   // the tip before
  int64_t supply = 0;  // the supply before
  // Transaction ids and their output counts, in block order.
  std::vector<std::pair<uint256, uint32_t>> made;
  // Outputs that were in the set before and that the block spent or overwrote; one
  // that it made again and spent may stand twice.
  std::vector<std::pair<OutPoint, TxOut>> restored;
  TreasuryUndo treasury;
  IndexUndo indexes;

  // Of an undo that ChainState::connect() returned for a block whose
  // transactions fit their byte format.
  Bytes serialize() const;

  // Throws std::runtime_error for bytes that are not such a record whole. Counts
  // are compared with the bytes that are left before memory is reserved.
  static BlockUndo deserialize(ByteView data);
};

}  // namespace norvel
