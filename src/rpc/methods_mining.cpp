#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>

#include "chain/blockchain.h"
#include "consensus/difficulty.h"
#include "core/console.h"
#include "network/network_manager.h"
#include "rpc/method_parameters.h"
#include "rpc/node_handlers.h"

namespace norvel::rpc {

namespace {

constexpr const char kBlockRejected[] = "Block rejected: ";

constexpr uint32_t kHashRateBlocks = 120;

Block read_block(const std::string& hex) {
  try {
    return Block::deserialize(read_hex(hex, kBlockBytesMax, "Block too large"));
  } catch (const std::runtime_error& failure) {
    throw std::runtime_error(std::string(kBlockRejected) + failure.what());
  }
}

// Hashes a second over the newest blocks, whole; 0 for fewer than two. The
// genesis block's time is a fixed one, so nothing is measured from it.
double network_hash_rate(const Blockchain& chain, const BlockIndex& tip) {
  if (tip.height < 2) {
    return 0;
  }
  const uint32_t first_height = tip.height > kHashRateBlocks ? tip.height - kHashRateBlocks : 1;
  const std::optional<uint256> hash = chain.get_block_hash(first_height);
  const std::optional<BlockIndex> first = hash ? chain.get_block_index(*hash) : std::nullopt;
  if (!first || tip.chain_work < first->chain_work) {
    return 0;  // the chain was switched meanwhile
  }
  const double work = (tip.chain_work - first->chain_work).to_double();
  const double seconds = static_cast<double>(tip.timestamp) - static_cast<double>(first->timestamp);
  return std::trunc(work / std::max(seconds, 1.0));
}

}  // namespace

JsonValue get_block_template(const NodeContext& context, const JsonValue& params) {
  require_chain(context);
  require_pool(context);
  const std::string& address = require_text(params, "address", "Mining address required");
  if (address.size() > kAddressCharactersMax) {
    throw std::runtime_error(kInvalidAddress);
  }
  return context.templates->get_template(address);
}

JsonValue submit_block(const NodeContext& context, const JsonValue& params) {
  Blockchain& chain = require_chain(context);
  require_pool(context);
  network::NetworkManager& network = require_network(context);
  const Block block = read_block(require_text(params, "data", "Block data required"));
  std::string error;
  if (!network.accept_block(block, error)) {
    throw std::runtime_error(kBlockRejected + error);
  }
  // The block itself is on disk, so that the next start finds it even where its
  // state could not be saved: it stays accepted.
  if (!chain.flush_state()) {
    console::error_line("[RPC] WARNING: Failed to save state after a submitted block!");
  }
  JsonValue result;
  result.set("accepted", true);
  result.set("hash", block.get_hash().to_hex());
  result.set("height", block.height);
  return result;
}

JsonValue get_mining_info(const NodeContext& context, const JsonValue&) {
  const Blockchain& chain = require_chain(context);
  const BlockIndex tip = chain.get_block_index(chain.get_best_hash()).value_or(BlockIndex());
  JsonValue result;
  result.set("blocks", tip.height);
  result.set("difficulty", difficulty::get_difficulty(tip.bits));
  result.set("networkhashps", network_hash_rate(chain, tip));
  return result;
}

}  // namespace norvel::rpc
