// The bytes of snapshot.dat: the whole state of the chain at one block, with a
// checksum. Integers are little-endian.
//
//   magic                8  "NSNAP001"
//   tip hash            32
//   tip height           4
//   total supply         8
//   output count         4
//     outpoint          36
//     length L           4
//     output             L
//   treasury balance     8
//   last distribution    4
//   distribution pool    8
//   pending              1  0 or 1
//   miner count          4
//     key length K       2
//     address            K
//     blocks             4
//   pending miner count  4, entries likewise
//   transaction count    4
//     txid              32
//     height             4
//   address count        4
//     key length K       1
//     public-key hash    K
//     txid count n       4
//     txids            32n
//   public-key count     4
//     key length K       2
//     address            K
//     value length V     1
//     public key         V
//   checksum            32  SHA-256 of all before it
//
// Entries of every map stand in key order.
//
// Threads: free functions without state; encode_snapshot takes the lock of the
// UTXO set.

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "chain/derived_indexes.h"
#include "chain/utxo_set.h"
#include "consensus/treasury_state.h"
#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel {

struct SnapshotHeader {
  uint256 tip_hash;
  uint32_t tip_height = 0;
  int64_t total_supply = 0;  // base units
};

struct SnapshotData {
  SnapshotHeader header;
  std::vector<std::pair<OutPoint, TxOut>> outputs;  // ascending, unique
  TreasuryState treasury;                           // distribution_interval is no part of the file
  DerivedIndexes indexes;
};

// No snapshot of a chain is longer, by the bytes of its block files: an output
// without script of 10 bytes there is 50 here, one of 35 that pays an address is at
// most 132, with its place in that address's list. Tells a file that is not worth reading.
constexpr uint64_t snapshot_bytes_max(uint64_t block_file_bytes) {
  return 8 * block_file_bytes + (uint64_t{1} << 20);
}

// O(state); the buffer is the only large allocation.
Bytes encode_snapshot(const SnapshotHeader& header, const UTXOSet& utxos, const TreasuryState& treasury,
                      const DerivedIndexes& indexes);

// Checks and reads all of `file`. On failure `reason` holds one of "snapshot too
// small", "bad magic", "checksum mismatch", "truncated header", "utxo count",
// "utxo len", "utxo framing", "utxo parse", "treasury", "miners", "txidx count",
// "txidx", "txidx parse", "addridx count", "addridx", "addridx txid", "pubkey
// count", "pubkeys", and `data` is unspecified. No count in the file reserves
// more memory than its bytes can fill.
bool decode_snapshot(ByteView file, SnapshotData& data, std::string& reason);

}  // namespace norvel
