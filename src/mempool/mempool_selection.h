// Which transactions of the pool a block template takes, and in which order.
//
// Threads: a free function without state; the caller keeps its arguments still.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <vector>

#include "core/uint256.h"
#include "mempool/mempool_entry.h"

namespace norvel {

// The place of an entry among all others: best fee rate first, of equal ones the
// oldest, then the smallest id. Carries what a walk over a full pool looks at.
struct SelectionKey {
  explicit SelectionKey(const MempoolEntry& of) : fee_rate(of.fee_rate), time(of.time), size(of.size), entry(&of) {}

  double fee_rate;
  int64_t time;
  uint64_t size;
  const MempoolEntry* entry;
};

struct SelectedBefore {
  bool operator()(const SelectionKey& left, const SelectionKey& right) const;
};

// All entries of a pool; their ids must have been taken once.
using SelectionOrder = std::set<SelectionKey, SelectedBefore>;

// The three indexes of one pool.
struct PoolView {
  const std::map<uint256, MempoolEntry>& entries;
  const OutpointSpenders& spenders;
  const SelectionOrder& order;
};

struct SelectionLimits {
  uint64_t bytes = 0;       // all together
  uint64_t least_size = 0;  // no entry is smaller: with less left the selection ends
  size_t count = std::numeric_limits<size_t>::max();
  std::function<bool(const Transaction&)> may_enter = {};  // empty: all may
};

// In the order of `pool`, but parents before their children. What does not fit
// or may not enter is left out with its descendants and uses nothing up; what is
// smaller still gets its turn. The result points into the entries. A step of a
// set for each entry looked at, and O(inputs log n) for those with parents.
std::vector<const MempoolEntry*> select_for_block(const PoolView& pool, const SelectionLimits& limits);

}  // namespace norvel
