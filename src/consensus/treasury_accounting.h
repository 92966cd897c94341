// What a connected block does to the TreasuryState, in this order: close_period
// before its transactions are applied; collect_fees, count_miner and
// freeze_period after.
//
//   running  --freeze_period, block before a multiple of the interval-->  pending
//   pending  --close_period, block at the multiple-->                     running
//
// A period that has nothing to pay out is not made pending; its balance and
// counts run on into the next one.
//
// Blocks are valid ones of the given height. Threads: the caller guards the
// state.

#pragma once

#include <cstdint>

#include "consensus/treasury_state.h"

namespace norvel {

class Block;

namespace treasury {

// A non-zero multiple of `interval`.
bool is_distribution_height(uint32_t height, uint32_t interval);

// At a distribution height with a pending distribution: takes what the block
// distributes from the balance, down to 0, and starts a new period.
void close_period(TreasuryState& state, const Block& block, uint32_t height);

// Adds the treasury's half of a block's fee total, which is not negative; also
// where the fees are too small for the coinbase to share them.
void collect_fees(TreasuryState& state, int64_t fees);

// Counts the block for the payee of the coinbase's first output, if it pays a
// public-key hash. The genesis block does not count.
void count_miner(TreasuryState& state, const Block& block, uint32_t height);

// On the block before a distribution height: makes the balance the pool of that
// distribution and freezes the counts.
void freeze_period(TreasuryState& state, uint32_t height);

}  // namespace treasury

}  // namespace norvel
