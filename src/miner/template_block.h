// The block to mine, made from a node's template.

#pragma once

#include <string>

#include "core/block.h"
#include "rpc/block_template.h"

namespace norvel::miner {

// A block with nonce 0 whose coinbase pays `mining_address`, followed by the
// template's transactions in order. Throws std::runtime_error for an address
// that does not decode.
Block make_block(const rpc::BlockTemplate& block_template, const std::string& mining_address);

}  // namespace norvel::miner
