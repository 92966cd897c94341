// Free helpers around the proof of work.

#pragma once

#include <cstdint>

#include "core/block_header.h"
#include "core/uint256.h"

namespace norvel::mining {

uint256 calculate_block_hash(const BlockHeader& header);

// True when `hash` is at most the target that `bits` stands for.
bool check_hash_meets_target(const uint256& hash, uint32_t bits);

// Expected seconds to a block at `hashrate` hashes per second, -1 when that is
// not above 0. Coarse: only the target's leading zero bits count.
double estimate_time_to_block(double hashrate, uint32_t bits);

}  // namespace norvel::mining
