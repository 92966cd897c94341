// The state of the active chain at its tip: unspent outputs, treasury, derived
// indexes, supply. Blocks are connected and taken back one at a time; nothing is
// validated here.
//
// Invariant: the state is a function of the blocks from the genesis block to the
// tip, so connecting a block and taking it back changes nothing.
// Threads: the caller holds the chain's lock. The UTXO set has a lock of its own
// and may be read by any thread; between blocks only it is consistent.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "chain/block_undo.h"
#include "chain/derived_indexes.h"
#include "chain/snapshot_codec.h"
#include "chain/utxo_set.h"
#include "consensus/treasury_state.h"
#include "core/block.h"

namespace norvel {

class ChainState {
 public:
  explicit ChainState(uint32_t distribution_interval);

  // Applies a validated child of the tip (or the genesis block to the empty
  // state) and returns what takes it back. O(block * log state), and linear in
  // the counted miners at the two heights around a distribution. On an exception
  // (memory) the state is as it was.
  BlockUndo connect(const Block& block, const uint256& hash);

  // Takes the tip back, at the same cost; the genesis block leaves the empty
  // state. `undo` is what connect() returned for it. Ends the program when memory
  // runs out: a block taken back by half would be no state at all.
  void disconnect(const BlockUndo& undo) noexcept;

  // The state before the genesis block.
  void clear();
  bool empty() const { return empty_; }

  // The snapshot of this state, and back; restore() leaves the interval.
  Bytes to_snapshot() const;
  void restore(SnapshotData snapshot);

  const uint256& tip_hash() const { return tip_hash_; }
  uint32_t tip_height() const { return tip_height_; }
  int64_t total_supply() const { return supply_; }
  const UTXOSet& utxos() const { return utxos_; }
  UTXOSet& utxos() { return utxos_; }
  const TreasuryState& treasury() const { return treasury_; }
  TreasuryState& treasury() { return treasury_; }
  const DerivedIndexes& indexes() const { return indexes_; }

 private:
  // Undoes what connect() did to outputs, indexes and treasury, or began to do.
  void take_back(const BlockUndo& undo) noexcept;

  bool empty_ = true;
  uint256 tip_hash_;
  uint32_t tip_height_ = 0;
  int64_t supply_ = 0;  // base units
  UTXOSet utxos_;
  TreasuryState treasury_;
  DerivedIndexes indexes_;
};

}  // namespace norvel
