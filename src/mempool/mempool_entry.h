// What the pool keeps of a transaction, and who spends what.
//
// Threads: plain values.

#pragma once

#include <cstdint>
#include <map>

#include "core/transaction.h"
#include "core/uint256.h"

namespace norvel {

struct MempoolEntry {
  Transaction tx;
  int64_t fee = 0;        // base units, as the caller gave it
  uint64_t size = 0;      // bytes
  int64_t time = 0;       // seconds since the Unix epoch, at admission
  double fee_rate = 0.0;  // fee / size; 0.0 for size 0

  // False only if no input spends an output of another pool transaction. Those
  // that did may have left.
  bool may_have_parents = false;
};

// The pool transaction that spends an outpoint, for each that one spends.
using OutpointSpenders = std::map<OutPoint, uint256>;

}  // namespace norvel
