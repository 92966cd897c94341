// The first block of the chain, fixed for ever.

#pragma once

#include "core/block.h"

namespace norvel {

// The genesis block with its pinned nonce. Throws std::runtime_error when its
// hash is not the pinned one, which means that this program was built wrong.
Block make_genesis_block();

}  // namespace norvel
