// Which of the pool's transactions a template offers, so that the block made
// from it is valid.
//
// Threads: free functions without state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "chain/transaction_rules.h"
#include "core/block.h"
#include "core/transaction.h"

namespace norvel::rpc {

// Header, height and transaction count.
inline constexpr size_t kBlockFrameBytes = BlockHeader::kSize + 4 + 4;

// The length in front of each transaction.
inline constexpr size_t kLengthBytes = 4;

// Kept free for the coinbase and its length: 158 bytes with both outputs and the
// miner's own text, the rest for longer texts of other miners.
inline constexpr size_t kCoinbaseRoomBytes = 904;

inline constexpr size_t kTemplateBytesMax = kBlockBytesMax - kBlockFrameBytes - kCoinbaseRoomBytes;

// The coinbase pays half of the fees to the treasury, out of what it may pay
// beyond the subsidy.
inline constexpr int64_t kTemplateFeesMax = 2 * kCoinbaseFeesMax;

// What the transactions of a template must keep to.
struct TemplateLimits {
  uint32_t height = 0;       // of the block
  uint64_t locked_time = 0;  // seconds since the Unix epoch; a lock time counts as past below it
  size_t bytes = kTemplateBytesMax;
  int64_t fees = kTemplateFeesMax;  // base units, all together
};

struct TemplateSelection {
  std::vector<Transaction> transactions;
  int64_t total_fees = 0;  // base units
};

// The size of `tx` in a block.
size_t size_in_block(const Transaction& tx);

// Of `candidates`, in their order, each that stands on `outputs` or on an earlier
// one that was taken, spends nothing that was spent before, pays a fee that is
// not negative, is final and keeps within the limits. O(inputs * log inputs).
TemplateSelection select_for_template(const std::vector<Transaction>& candidates, const OutputsByOutpoint& outputs,
                                      const TemplateLimits& limits);

}  // namespace norvel::rpc
