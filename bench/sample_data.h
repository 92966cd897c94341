// Fixed transactions and blocks that the benches measure.

#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "core/block.h"
#include "core/transaction.h"

namespace norvel::bench {

// A signed payment from two P2PKH outputs to two, and what it spends.
struct Payment {
  Transaction tx;
  std::map<OutPoint, TxOut> spent;
};
const Payment& sample_payment();

// A block of `transaction_count` such payments behind a coinbase.
Block sample_block(size_t transaction_count);

// The first digits of a hash over `data`, printed beside a figure so that the
// work cannot be optimised away.
std::string digest(ByteView data);

}  // namespace norvel::bench
