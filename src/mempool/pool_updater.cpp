#include "mempool/pool_updater.h"

#include <utility>
#include <vector>

#include "chain/blockchain.h"
#include "mempool/mempool.h"

namespace norvel {

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
  std::list<Bytes> returned;
  uint64_t returned_bytes = returned_bytes_;
  std::set<uint256> bereft;
  for (const Transaction& tx : block.transactions) {
    const std::vector<uint256> children = pool_.get_children(tx.get_txid());
    bereft.insert(children.begin(), children.end());
    Bytes bytes = tx.is_ordinary() ? tx.serialize() : Bytes();
    const uint64_t cost = bytes.size() + kReturnedOverheadBytes;
    if (!bytes.empty() && cost <= kReturnedBytesMax - returned_bytes) {
      bytes.shrink_to_fit();
      returned_bytes += cost;
      returned.push_back(std::move(bytes));
    }
  }
  // From here on nothing fails.
  returned_.splice(returned_.end(), returned);
  returned_bytes_ = returned_bytes;
  bereft_.merge(bereft);
}

void PoolUpdater::tip_changed() {
  for (; !returned_.empty(); returned_.pop_front()) {
    admission_.accept_returned(Transaction::deserialize(returned_.front()));
  }
  returned_bytes_ = 0;
  if (lost_) {
    const std::vector<uint256> all = pool_.get_txids();
    bereft_ = {all.begin(), all.end()};
  }
  admission_.remove_stranded(bereft_);
  bereft_.clear();
  lost_ = false;
  admission_.remove_not_final();
}

}  // namespace norvel
