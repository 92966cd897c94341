#include "consensus/treasury_accounting.h"

#include <limits>
#include <string>

#include "consensus/distribution.h"
#include "core/block.h"
#include "crypto/address.h"

namespace norvel::treasury {

namespace {

// A pool below kShareUnitsMin is distributed by a transaction without outputs.
// From there on outputs are demanded; where every share is dust there can be
// none, and a pending distribution would stop the chain.
bool can_distribute(int64_t pool, const MinerBlockCounts& miner_counts) {
  if (pool < 1 || miner_counts.empty()) {
    return false;
  }
  return pool < kShareUnitsMin || !calculate_distribution(pool, miner_counts).empty();
}

}  // namespace

bool is_distribution_height(uint32_t height, uint32_t interval) {
  return height != 0 && interval != 0 && height % interval == 0;
}

void close_period(TreasuryState& state, const Block& block, uint32_t height) {
  if (!is_distribution_height(height, state.distribution_interval) || !state.distribution_pending) {
    return;
  }
  const auto& txs = block.transactions;
  if (txs.size() >= 2 && txs[1].type == TransactionType::TREASURY_DISTRIBUTION) {
    const int64_t paid = txs[1].total_output_value();
    state.balance = paid < state.balance ? state.balance - paid : 0;
  }
  state.pending_miner_counts.clear();
  state.distribution_pool = 0;
  state.distribution_pending = false;
  state.miner_block_counts.clear();
  state.last_distribution_height = height;
}

void collect_fees(TreasuryState& state, int64_t fees) {
  if (__builtin_add_overflow(state.balance, fees >> 1, &state.balance)) {
    state.balance = std::numeric_limits<int64_t>::max();
  }
}

void count_miner(TreasuryState& state, const Block& block, uint32_t height) {
  if (height == 0 || block.transactions.empty() || block.transactions.front().outputs.empty()) {
    return;
  }
  const Bytes payee = block.transactions.front().outputs.front().get_pubkey_hash();
  const std::string address = crypto::hash160_to_address(payee, 0);
  if (!address.empty()) {
    ++state.miner_block_counts[address];
  }
}

void freeze_period(TreasuryState& state, uint32_t height) {
  // After the last height this wraps to 0, which is no distribution height.
  const uint32_t next_height = height + 1;
  if (!is_distribution_height(next_height, state.distribution_interval) || state.distribution_pending) {
    return;
  }
  state.distribution_pool = state.balance;
  state.pending_miner_counts = state.miner_block_counts;
  state.distribution_pending = can_distribute(state.distribution_pool, state.pending_miner_counts);
}

}  // namespace norvel::treasury
