// The outputs of one address, out of all that are unspent.
//
// Threads: safe from any thread; one walk at a time.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "chain/blockchain.h"
#include "core/bytes.h"
#include "core/sync.h"
#include "core/transaction.h"

namespace norvel::rpc {

struct ListedOutput {
  int64_t value = 0;  // base units
  OutPoint outpoint;
};

struct AddressOutputs {
  int64_t balance = 0;  // base units, modulo 2^64
  uint64_t count = 0;
  std::vector<ListedOutput> largest;  // by outpoint
};

class AddressOutputReader {
 public:
  // All outputs paid to `pubkey_hash`, of which at most `listed_max` are listed:
  // the most valuable, of equal ones the first. Linear in the set, which is locked
  // for a few thousand outputs at a time. They are of one state of the chain,
  // unless it keeps changing, as it does while a node catches up.
  AddressOutputs read(const Blockchain& chain, const Bytes& pubkey_hash, size_t listed_max) EXCLUDES(mutex_);

 private:
  // Guards nothing but the processor: held over a whole walk.
  Mutex mutex_;
};

}  // namespace norvel::rpc
