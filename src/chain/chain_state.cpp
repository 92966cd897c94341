#include "chain/chain_state.h"

#include <cassert>
#include <limits>
#include <map>
#include <utility>

#include "chain/block_rules.h"
#include "consensus/treasury_accounting.h"
#include "crypto/address.h"

namespace norvel {

namespace {

// The outputs that a block takes out of the state or replaces there.
struct TouchedOutputs {
  DerivedIndexes::SpentOutputs spent;  // by its inputs, from the set or from the block itself
  std::map<OutPoint, TxOut> before;    // those of the set that it spends or makes again
};

TouchedOutputs find_touched_outputs(const Block& block, const UTXOSet& utxos) {
  TouchedOutputs touched;
  std::map<uint256, const Transaction*> made;
  for (const Transaction& tx : block.transactions) {
    for (const TxIn& input : tx.inputs) {
      const OutPoint& at = input.prevout;
      if (at.is_null()) {
        continue;
      }
      const auto own = made.find(at.txid);
      if (own != made.end() && at.index < own->second->outputs.size()) {
        touched.spent.insert_or_assign(at, own->second->outputs[at.index]);
      } else if (const auto output = utxos.get_utxo(at)) {
        touched.spent.insert_or_assign(at, *output);
        touched.before.insert_or_assign(at, *output);
      }
    }
    const uint256 txid = tx.get_txid();
    for (size_t i = 0; i < tx.outputs.size(); ++i) {
      const OutPoint at{txid, static_cast<uint32_t>(i)};
      if (auto output = utxos.get_utxo(at)) {
        touched.before.insert_or_assign(at, std::move(*output));
      }
    }
    made[txid] = &tx;
  }
  return touched;
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
  TouchedOutputs touched = find_touched_outputs(block, utxos_);
  IndexPlan index_plan = indexes_.plan(block, touched.spent);
  BlockUndo undo;
  undo.prev_hash = tip_hash_;
  undo.supply = supply_;
  undo.made.reserve(block.transactions.size());
  for (const Transaction& tx : block.transactions) {
    undo.made.emplace_back(tx.get_txid(), static_cast<uint32_t>(tx.outputs.size()));
  }
  undo.restored.assign(std::move_iterator(touched.before.begin()), std::move_iterator(touched.before.end()));
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
