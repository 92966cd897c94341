// Which transactions of the pool a block template takes, and in which order.
//
// Threads: a free function without state; the caller keeps its arguments still.

#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "core/uint256.h"
#include "mempool/mempool_entry.h"

namespace norvel {

// Best fee rate first, of equal ones the oldest, but parents before their
// children; at most `max_bytes` together. What does not fit is left out with
// its descendants, and what is smaller still gets its turn. `spenders` holds
// the inputs of `entries`, which the result points into. O(n log n).
std::vector<const MempoolEntry*> select_for_block(const std::map<uint256, MempoolEntry>& entries,
                                                  const OutpointSpenders& spenders, uint64_t max_bytes);

}  // namespace norvel
