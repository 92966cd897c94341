#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "chain/blockchain.h"
#include "consensus/difficulty.h"
#include "rpc/method_parameters.h"
#include "rpc/node_handlers.h"

namespace norvel::rpc {

namespace {

constexpr const char kBlockNotFound[] = "Block not found";

// Side chains included. An unknown hash is not handed to the block files, which
// would print a line for it.
std::optional<Block> load_block(const Blockchain& chain, const std::string& hash_text) {
  const std::optional<uint256> hash = read_hash(hash_text);
  return hash && chain.has_block(*hash) ? chain.load_block_from_disk(*hash) : std::nullopt;
}

}  // namespace

JsonValue get_block_count(const NodeContext& context, const JsonValue&) {
  return require_chain(context).get_best_height();
}

JsonValue get_best_block_hash(const NodeContext& context, const JsonValue&) {
  return require_chain(context).get_best_hash().to_hex();
}

JsonValue get_block(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const std::optional<Block> block = load_block(chain, require_text(params, "hash", "Block hash required"));
  if (!block) {
    throw std::runtime_error(kBlockNotFound);
  }
  std::vector<std::string> txids;
  txids.reserve(block->transactions.size());
  for (const Transaction& tx : block->transactions) {
    txids.push_back(tx.get_txid().to_hex());
  }
  JsonValue result;
  result.set("hash", block->get_hash().to_hex());
  result.set("height", block->height);
  result.set("version", block->header.version);
  result.set("previousblockhash", block->header.prev_hash.to_hex());
  result.set("merkleroot", block->header.merkle_root.to_hex());
  result.set("time", block->header.timestamp);
  result.set("bits", block->header.bits);
  result.set("nonce", block->header.nonce);
  result.set("difficulty", difficulty::get_difficulty(block->header.bits));
  result.set("size", block->size());
  result.set("tx_count", block->transactions.size());
  result.set("tx", list_of(std::move(txids)));
  return result;
}

JsonValue get_block_hash(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const JsonValue& height = find_parameter(params, "height");
  if (height.type != JsonType::kNumber || height.number != std::trunc(height.number)) {
    throw std::runtime_error("Block height required");
  }
  std::optional<uint256> hash;
  if (height.number >= 0 && height.number <= std::numeric_limits<uint32_t>::max()) {
    hash = chain.get_block_hash(to_u32(height.number));
  }
  if (!hash) {
    throw std::runtime_error("Block not found at height " + height.to_string());
  }
  return hash->to_hex();
}

}  // namespace norvel::rpc
