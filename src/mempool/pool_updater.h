// Keeps the pool in step with the active chain: confirmed transactions leave,
// those of blocks that left the chain return where they are still valid, and
// whatever the new state can no longer accept goes, with its descendants.
//
// Cost follows the size of the blocks and what hangs on them, not the pool; only
// after a block left the chain are the time-locked transactions looked through.
//
// Threads: called by the chain, one call at a time.

#pragma once

#include <cstdint>
#include <vector>

#include "chain/pool_sink.h"
#include "core/transaction.h"
#include "core/uint256.h"
#include "mempool/admission.h"

namespace norvel {

// Bytes of transactions of disconnected blocks that are kept for the pool. The
// longest reorganisation leaves 720 MB behind; of those the lowest are kept, so
// that parents come before their children, and the rest is forgotten.
inline constexpr uint64_t kReturnedBytesMax = 300'000'000;

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
  // then removes what stood on outputs that did not come back, and what is not
  // final any more.
  void tip_changed() override;

 private:
  void remove_not_final();

  Mempool& pool_;
  TransactionAdmission admission_;

  // Since the last tip_changed(), by height, then position.
  std::vector<Transaction> returned_;
  uint64_t returned_bytes_ = 0;
  std::vector<uint256> bereft_;  // ids from disconnected blocks that have children in the pool
  bool disconnected_ = false;
};

}  // namespace norvel
