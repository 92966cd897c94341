#include "miner/template_block.h"

#include <algorithm>
#include <limits>

namespace norvel::miner {

namespace {

// The later of the node's clock and one second after the parent block.
uint64_t choose_timestamp(const rpc::BlockTemplate& block_template) {
  const int64_t previous = block_template.previous_block_time;
  const int64_t after_previous = previous == std::numeric_limits<int64_t>::max() ? previous : previous + 1;
  return static_cast<uint64_t>(std::max({after_previous, block_template.current_time, int64_t{0}}));
}

}  // namespace

Block make_block(const rpc::BlockTemplate& block_template, const std::string& mining_address) {
  Block block;
  block.header.version = block_template.version;
  block.header.prev_hash = block_template.previous_block_hash;
  block.header.timestamp = choose_timestamp(block_template);
  block.header.bits = block_template.bits;
  block.height = block_template.height;
  block.transactions.reserve(block_template.transactions.size() + 1);
  block.transactions.push_back(Transaction::create_coinbase_tx(mining_address, block_template.miner_reward,
                                                               block_template.total_fees, block_template.height,
                                                               "Norvel Miner v10.1.0"));
  block.transactions.insert(block.transactions.end(), block_template.transactions.begin(),
                            block_template.transactions.end());
  block.update_merkle_root();
  return block;
}

}  // namespace norvel::miner
