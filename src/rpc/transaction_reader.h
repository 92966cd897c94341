// Reads confirmed transactions, and the outputs that they spent, from the blocks
// of the active chain. The chain's lock is taken for one block at a time.
//
// What is read while the chain switches branches may be missing.
//
// Threads: single-threaded; made for one request.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "chain/blockchain.h"
#include "chain/transaction_rules.h"
#include "core/block.h"
#include "core/transaction.h"
#include "core/uint256.h"

namespace norvel::rpc {

struct ConfirmedTransaction {
  Transaction tx;
  uint256 block_hash;
  uint32_t height = 0;
  uint64_t block_time = 0;  // seconds since the Unix epoch
};

// Blocks of the active chain from `height` on, itself included.
uint32_t count_confirmations(const Blockchain& chain, uint32_t height);

class TransactionReader {
 public:
  // `spent_reads_max`: blocks that read_spent() may read in all. The chain
  // outlives the reader.
  TransactionReader(const Blockchain& chain, size_t spent_reads_max);

  // The transaction, when it is in the active chain. Reads a block, unless it
  // stands in the one read last.
  std::optional<ConfirmedTransaction> find(const uint256& txid);

  // What these outpoints of the active chain named, spent or not; nothing when
  // one is not found or too many blocks would have to be read. Reads each block
  // once.
  std::optional<OutputsByOutpoint> read_spent(const std::vector<OutPoint>& outpoints);

 private:
  const Block* load(uint32_t height);

  const Blockchain& chain_;
  size_t spent_reads_left_;
  std::optional<Block> last_;  // read by load()
};

}  // namespace norvel::rpc
