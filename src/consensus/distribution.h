// How a treasury pool is shared among the miners of a period, and the
// transaction that pays the shares out.
//
// Threads: free functions without state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "consensus/treasury_state.h"
#include "core/transaction.h"

namespace norvel::treasury {

// Smallest share, in base units, that is paid out.
inline constexpr int64_t kShareUnitsMin = 10'000;

// Most payees of a distribution that this node makes.
inline constexpr size_t kPayeesMax = 20'000;

// Output index of a distribution's input; a coinbase has 0xffffffff there.
inline constexpr uint32_t kDistributionIndex = 0xfffffffe;

// The shares of `amount` base units, by address: each miner's part by block
// count, rounded down; parts below kShareUnitsMin are dropped. What is left
// goes to the payee with the most blocks, among equals the first in map order,
// so that the shares sum to `amount`. Empty when nobody gets a share. O(miners).
std::map<std::string, int64_t> calculate_distribution(int64_t amount, const MinerBlockCounts& miner_counts);

// The transaction that pays calculate_distribution() at `height`, stamped with
// the clock, outputs in map order; it may have no outputs. Of more than
// kPayeesMax payees those with the largest shares stay, among equals the first.
// An address that does not decode is left out with a line on standard error.
Transaction create_distribution_tx(int64_t amount, const MinerBlockCounts& miner_counts, uint32_t height);

// Whether `tx` may pay out `amount` at `height`: a distribution of this height,
// each output to a payee of calculate_distribution() and within 1 base unit of
// the share, all together at most `amount`. Payees may be missing, but not all
// of them while `amount` reaches kShareUnitsMin. On failure `error` holds the
// reason, on success it is left alone.
bool validate_distribution_tx(const Transaction& tx, int64_t amount, const MinerBlockCounts& miner_counts,
                              uint32_t height, std::string& error);

}  // namespace norvel::treasury
