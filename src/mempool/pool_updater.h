// Keeps the pool in step with the active chain: confirmed transactions leave,
// those of blocks that left the chain return where they are still valid, and
// whatever the new state can no longer accept goes, with its descendants.
//
// Cost: for a block, its transactions and what spends their inputs or outputs,
// O(log n) in the pool for each; for what leaves by its lock time, O(log n) each.
// Only after block_lost() is the whole pool looked through, once.
//
// Errors: std::bad_alloc at most. A call that threw has noted nothing, or keeps
// what is left to do, so that it is simply made again.
//
// Threads: called by the chain, one call at a time.

#pragma once

#include <cstdint>
#include <list>
#include <set>

#include "chain/pool_sink.h"
#include "core/bytes.h"
#include "core/uint256.h"
#include "mempool/admission.h"

namespace norvel {

// Memory for transactions of disconnected blocks on their way to the pool, held
// serialized: each counts its bytes and kReturnedOverheadBytes for what holds
// them. The longest reorganisation leaves 720 MB behind; one that does not fit
// when its turn comes, from the lowest block up, is forgotten, and its children
// are then refused.
inline constexpr uint64_t kReturnedBytesMax = 300'000'000;
inline constexpr uint64_t kReturnedOverheadBytes = 96;

class Blockchain;
class Mempool;

class PoolUpdater : public PoolSink {
 public:
  PoolUpdater(const Blockchain& chain, Mempool& pool);

  // The block's transactions leave, and those that conflict with them.
  void block_connected(const Block& block) override;

  // Notes what the block leaves behind, for tip_changed().
  void block_disconnected(const Block& block) override;

  // Offers the ordinary transactions of disconnected blocks to the pool again,
  // then removes what stood on outputs that did not come back (after
  // block_lost(), whatever does not stand), and what is not final any more.
  void tip_changed() override;

  void block_lost() override { lost_ = true; }

 private:
  Mempool& pool_;
  TransactionAdmission admission_;

  // Since the last tip_changed().
  std::list<Bytes> returned_;  // serialized, by height, then position
  uint64_t returned_bytes_ = 0;
  std::set<uint256> bereft_;  // pool transactions that spend outputs of disconnected blocks
  bool lost_ = false;
};

}  // namespace norvel
