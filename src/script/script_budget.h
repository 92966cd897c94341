// What the scripts of a transaction may cost before relay refuses it. Blocks
// have no budget.

#pragma once

#include <cstdint>

namespace norvel {

// Threads: a plain value; one transaction's inputs share one, in turn.
struct ScriptBudget {
  uint64_t signature_checks_left = 0;
  uint64_t hash_bytes_left = 0;  // by OP_SHA256, OP_HASH160 and signature hashes
  bool exceeded = false;         // set by the operation that found too little left, which then fails the script
};

}  // namespace norvel
