// What a node offers to mine on: the result of getblocktemplate.
//
// Threads: a plain value.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/transaction.h"
#include "core/uint256.h"

namespace norvel::rpc {

// A key that the node left out, or gave another type, is zero or empty here.
// Amounts are in base units, times in seconds since the Unix epoch.
struct BlockTemplate {
  uint32_t version = 0;
  uint256 previous_block_hash;
  uint32_t height = 0;
  uint32_t bits = 0;  // compact target
  int64_t current_time = 0;
  int64_t previous_block_time = 0;
  std::string mining_address;
  int64_t coinbase_value = 0;
  int64_t miner_reward = 0;
  int64_t total_fees = 0;
  int64_t treasury_value = 0;
  std::string treasury_address;
  std::vector<Transaction> transactions;  // without the coinbase
};

}  // namespace norvel::rpc
