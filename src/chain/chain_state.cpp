#include "chain/chain_state.h"

#include <cassert>
#include <limits>
#include <map>
#include <utility>
#include <vector>

#include "chain/block_rules.h"
#include "consensus/treasury_accounting.h"
#include "crypto/address.h"

namespace norvel {

namespace {

using Outputs = std::vector<std::pair<OutPoint, TxOut>>;

// The public-key hash that each spent output paid, for all inputs of the block in
// order. Those of the set are added to `taken`, the block's own are not.
std::vector<Bytes> look_up_inputs(const Block& block, const UTXOSet& utxos, Outputs& taken) {
  std::vector<Bytes> hashes;
  std::map<uint256, const Transaction*> made;
  for (const Transaction& tx : block.transactions) {
    for (const TxIn& input : tx.inputs) {
      const OutPoint& at = input.prevout;
      Bytes& hash = hashes.emplace_back();
      if (at.is_null()) {
        continue;
      }
      if (auto output = utxos.get_utxo(at)) {
        hash = output->get_pubkey_hash();
        taken.emplace_back(at, std::move(*output));
      } else if (const auto own = made.find(at.txid); own != made.end() && at.index < own->second->outputs.size()) {
        hash = own->second->outputs[at.index].get_pubkey_hash();
      }
    }
    made[tx.get_txid()] = &tx;
  }
  return hashes;
}

// The outputs of the set that the block makes again. Only a repeated transaction
// can have any, as the indexes know every transaction of the chain.
void look_up_overwritten(const Block& block, const IndexUndo& indexes, const UTXOSet& utxos, Outputs& overwritten) {
  for (size_t i = 0; i < block.transactions.size(); ++i) {
    const auto& [txid, previous_height] = indexes.heights[i];
    const size_t output_count = previous_height ? block.transactions[i].outputs.size() : 0;
    for (uint32_t at = 0; at < output_count; ++at) {
      if (auto output = utxos.get_utxo({txid, at})) {
        overwritten.emplace_back(OutPoint{txid, at}, std::move(*output));
      }
    }
  }
}

TreasuryUndo plan_treasury_undo(const TreasuryState& state, const Block& block) {
  TreasuryUndo undo;
  undo.balance = state.balance;
  undo.last_distribution_height = state.last_distribution_height;
  undo.distribution_pool = state.distribution_pool;
  undo.distribution_pending = state.distribution_pending;
  const uint32_t interval = state.distribution_interval;
  const bool closes = treasury::is_distribution_height(block.height, interval);
  const bool freezes = treasury::is_distribution_height(block.height + 1, interval);  // 0 after the last height
  if (closes || freezes) {
    undo.pending_miner_counts = state.pending_miner_counts;
  }
  if (closes) {
    undo.miner_block_counts = state.miner_block_counts;
  } else if (block.height != 0 && !block.transactions.empty() && !block.transactions.front().outputs.empty()) {
    const Bytes payee = block.transactions.front().outputs.front().get_pubkey_hash();
    undo.counted_miner = crypto::hash160_to_address(payee, 0);
  }
  return undo;
}

void restore_treasury(TreasuryState& state, const TreasuryUndo& undo) {
  state.balance = undo.balance;
  state.last_distribution_height = undo.last_distribution_height;
  state.distribution_pool = undo.distribution_pool;
  state.distribution_pending = undo.distribution_pending;
  const auto counted = state.miner_block_counts.find(undo.counted_miner);
  if (undo.miner_block_counts) {
    state.miner_block_counts = *undo.miner_block_counts;
  } else if (counted != state.miner_block_counts.end() && --counted->second == 0) {
    state.miner_block_counts.erase(counted);
  }
  if (undo.pending_miner_counts) {
    state.pending_miner_counts = *undo.pending_miner_counts;
  }
}

int64_t saturating_add(int64_t sum, int64_t value) {
  if (__builtin_add_overflow(sum, value, &sum)) {
    return value < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return sum;
}

}  // namespace

ChainState::ChainState(uint32_t distribution_interval) {
  treasury_.distribution_interval = distribution_interval;
}

BlockUndo ChainState::connect(const Block& block, const uint256& hash) {
  assert(!block.transactions.empty());
  assert(empty_ ? block.height == 0 : block.header.prev_hash == tip_hash_ && block.height == tip_height_ + 1);
  BlockUndo undo;
  const std::vector<Bytes> spent_hashes = look_up_inputs(block, utxos_, undo.restored);
  IndexPlan index_plan = indexes_.plan(block, spent_hashes);
  look_up_overwritten(block, index_plan.undo, utxos_, undo.restored);
  undo.prev_hash = tip_hash_;
  undo.supply = supply_;
  undo.made.reserve(block.transactions.size());
  for (const Transaction& tx : block.transactions) {
    undo.made.emplace_back(tx.get_txid(), static_cast<uint32_t>(tx.outputs.size()));
  }
  undo.treasury = plan_treasury_undo(treasury_, block);
  undo.indexes = std::move(index_plan.undo);

  bool is_miner_counted = false;
  try {
    treasury::close_period(treasury_, block, block.height);
    const int64_t fees = block_fees(block, utxos_);
    for (const Transaction& tx : block.transactions) {
      utxos_.apply_transaction(tx);
    }
    indexes_.add_block(undo.indexes, index_plan.keys, block.height);
    treasury::collect_fees(treasury_, fees);
    treasury::count_miner(treasury_, block, block.height);
    is_miner_counted = true;
    treasury::freeze_period(treasury_, block.height);
  } catch (...) {
    if (!is_miner_counted) {
      undo.treasury.counted_miner.clear();
    }
    take_back(undo);
    throw;
  }
  for (const TxOut& output : block.transactions.front().outputs) {
    supply_ = saturating_add(supply_, output.value);
  }
  tip_hash_ = hash;
  tip_height_ = block.height;
  empty_ = false;
  return undo;
}

void ChainState::disconnect(const BlockUndo& undo) noexcept {
  assert(!empty_);
  take_back(undo);
  supply_ = undo.supply;
  tip_hash_ = undo.prev_hash;
  if (tip_height_ == 0) {
    empty_ = true;
  } else {
    --tip_height_;
  }
}

void ChainState::take_back(const BlockUndo& undo) noexcept {
  indexes_.remove_block(undo.indexes);
  for (const auto& [txid, output_count] : undo.made) {
    for (uint32_t i = 0; i < output_count; ++i) {
      utxos_.remove_utxo({txid, i});
    }
  }
  for (const auto& [outpoint, output] : undo.restored) {
    utxos_.add_utxo(outpoint, output);
  }
  restore_treasury(treasury_, undo.treasury);
}

void ChainState::clear() {
  const uint32_t interval = treasury_.distribution_interval;
  empty_ = true;
  tip_hash_ = uint256();
  tip_height_ = 0;
  supply_ = 0;
  utxos_.clear();
  treasury_ = TreasuryState();
  treasury_.distribution_interval = interval;
  indexes_.clear();
}

Bytes ChainState::to_snapshot() const {
  return encode_snapshot({tip_hash_, tip_height_, supply_}, utxos_, treasury_, indexes_);
}

void ChainState::restore(SnapshotData snapshot) {
  const uint32_t interval = treasury_.distribution_interval;
  utxos_.assign(std::move(snapshot.outputs));
  treasury_ = std::move(snapshot.treasury);
  treasury_.distribution_interval = interval;
  indexes_ = std::move(snapshot.indexes);
  tip_hash_ = snapshot.header.tip_hash;
  tip_height_ = snapshot.header.tip_height;
  supply_ = snapshot.header.total_supply;
  empty_ = false;
}

}  // namespace norvel
