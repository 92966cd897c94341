// What the chain knows about the treasury: its balance and the distribution
// period under way.
//
// Threads: a plain value; the chain's lock guards the one that counts.

#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace norvel {

// Blocks mined per miner address.
using MinerBlockCounts = std::map<std::string, uint32_t>;

struct TreasuryState {
  int64_t balance = 0;                       // base units
  MinerBlockCounts miner_block_counts;       // since the last distribution
  uint32_t last_distribution_height = 0;     // of the block that closed the last period
  int64_t distribution_pool = 0;             // base units, to be paid at the pending distribution
  MinerBlockCounts pending_miner_counts;     // miner_block_counts as they were when the pool was set
  bool distribution_pending = false;         // due at the next multiple of the interval
  uint32_t distribution_interval = 259'200;  // blocks; 0 never distributes

  bool operator==(const TreasuryState&) const = default;
};

}  // namespace norvel
