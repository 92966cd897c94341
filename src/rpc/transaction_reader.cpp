#include "rpc/transaction_reader.h"

#include <utility>

namespace norvel::rpc {

uint32_t count_confirmations(const Blockchain& chain, uint32_t height) {
  const uint32_t best_height = chain.get_best_height();
  return best_height < height ? 0 : best_height - height + 1;
}

TransactionReader::TransactionReader(const Blockchain& chain, size_t spent_reads_max)
    : chain_(chain), spent_reads_left_(spent_reads_max) {}

// The active block at `height`; null when there is none or it cannot be read.
// Valid until the next call.
const Block* TransactionReader::load(uint32_t height) {
  const std::optional<uint256> hash = chain_.get_block_hash(height);
  if (!hash) {
    return nullptr;
  }
  if (!last_ || last_->get_hash() != *hash) {
    last_ = chain_.load_block_from_disk(*hash);
  }
  return last_ ? &*last_ : nullptr;
}

std::optional<ConfirmedTransaction> TransactionReader::find(const uint256& txid) {
  const std::optional<uint32_t> height = chain_.get_transaction_height(txid);
  const Block* block = height ? load(*height) : nullptr;
  if (block != nullptr) {
    for (const Transaction& tx : block->transactions) {
      if (tx.get_txid() == txid) {
        return ConfirmedTransaction{tx, block->get_hash(), *height, block->header.timestamp};
      }
    }
  }
  return std::nullopt;
}

std::optional<OutputsByOutpoint> TransactionReader::read_spent(const std::vector<OutPoint>& outpoints) {
  std::map<uint32_t, std::map<uint256, std::set<uint32_t>>> wanted;  // by height and transaction
  for (const OutPoint& outpoint : outpoints) {
    const std::optional<uint32_t> height = chain_.get_transaction_height(outpoint.txid);
    if (!height) {
      return std::nullopt;
    }
    wanted[*height][outpoint.txid].insert(outpoint.index);
  }
  if (wanted.size() > spent_reads_left_) {
    return std::nullopt;
  }
  OutputsByOutpoint found;
  for (const auto& [height, indexes_by_txid] : wanted) {
    --spent_reads_left_;
    const Block* block = load(height);
    if (block == nullptr) {
      return std::nullopt;
    }
    for (const Transaction& tx : block->transactions) {
      const auto indexes = indexes_by_txid.find(tx.get_txid());
      if (indexes == indexes_by_txid.end()) {
        continue;
      }
      for (const uint32_t index : indexes->second) {
        if (index < tx.outputs.size()) {
          found.emplace(OutPoint{indexes->first, index}, tx.outputs[index]);
        }
      }
    }
  }
  const std::set<OutPoint> distinct(outpoints.begin(), outpoints.end());
  return found.size() == distinct.size() ? std::optional(std::move(found)) : std::nullopt;
}

}  // namespace norvel::rpc
