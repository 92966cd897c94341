#include "mempool/pool_updater.h"

#include <optional>
#include <string>
#include <utility>

#include "chain/blockchain.h"
#include "mempool/mempool.h"

namespace norvel {

namespace {

bool is_ordinary(const Transaction& tx) {
  return tx.type != TransactionType::COINBASE && tx.type != TransactionType::TREASURY_DISTRIBUTION;
}

}  // namespace

PoolUpdater::PoolUpdater(const Blockchain& chain, Mempool& pool) : pool_(pool), admission_(chain, pool) {}

void PoolUpdater::block_connected(const Block& block) {
  pool_.remove_block_transactions(block);
  for (const Transaction& tx : block.transactions) {
    for (const TxIn& input : tx.inputs) {
      if (const auto spender = pool_.get_spender(input.prevout)) {
        pool_.remove_with_descendants(*spender);
      }
    }
  }
}

// Children that enter the pool later were checked against a chain without the
// block, so those that are here now are all.
void PoolUpdater::block_disconnected(const Block& block) {
  disconnected_ = true;
  for (const Transaction& tx : block.transactions) {
    if (!pool_.get_children(tx.get_txid()).empty()) {
      bereft_.push_back(tx.get_txid());
    }
    const uint64_t bytes = tx.size();
    if (is_ordinary(tx) && bytes <= kReturnedBytesMax - returned_bytes_) {
      returned_bytes_ += bytes;
      returned_.push_back(tx);
    }
  }
}

void PoolUpdater::tip_changed() {
  for (const Transaction& tx : std::exchange(returned_, {})) {
    std::string reason;
    int64_t fee = 0;
    admission_.accept(tx, reason, fee);
  }
  returned_bytes_ = 0;
  for (const uint256& txid : std::exchange(bereft_, {})) {
    admission_.remove_stranded_children(txid);
  }
  if (std::exchange(disconnected_, false)) {
    remove_not_final();
  }
}

// Heights can only become too low again when blocks leave the chain.
void PoolUpdater::remove_not_final() {
  for (const uint256& txid : pool_.get_time_locked()) {
    const std::optional<Transaction> tx = pool_.get_transaction(txid);
    if (tx && !admission_.is_final_for_next_block(*tx)) {
      pool_.remove_with_descendants(txid);
    }
  }
}

}  // namespace norvel
