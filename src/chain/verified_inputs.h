// Remembers which inputs were found to unlock the output they spend, so that a
// transaction verified for the pool costs no signature check when its block
// arrives, nor a block's second pass over its inputs.
//
// An entry is 16 bytes of SHA-256 over a random salt, the transaction id (which
// covers the signatures), the input's index and the spent output's locking
// script: all that the verdict depends on, of a transaction that fits its byte
// format. Only good verdicts are remembered. The table has a fixed size; entries
// of a full bucket are replaced at random.
//
// Threads: safe from any thread. Transactions must have taken their id before
// they are shared between threads.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/bytes.h"
#include "core/sync.h"
#include "core/transaction.h"
#include "core/uint256.h"

namespace norvel {

class VerifiedInputs {
 public:
  // Room for about `entry_count` inputs, 16 bytes each.
  static constexpr size_t kEntryCount = size_t{1} << 21;
  explicit VerifiedInputs(size_t entry_count = kEntryCount);

  // ScriptInterpreter::verify_input_signature(), or its remembered verdict.
  bool verify(const Transaction& tx, size_t input_index, const TxOut& spent) EXCLUDES(mutex_);

  bool contains(const Transaction& tx, size_t input_index, const TxOut& spent) const EXCLUDES(mutex_);
  void remember(const Transaction& tx, size_t input_index, const TxOut& spent) EXCLUDES(mutex_);

 private:
  using Entry = std::array<uint8_t, 16>;
  static constexpr Entry kFree{};  // no more likely to be met than any other digest
  static constexpr size_t kBucketEntries = 8;
  using Bucket = std::array<Entry, kBucketEntries>;

  // Where an input is remembered, and as what.
  struct Place {
    size_t bucket_index;
    size_t victim_index;  // of the entry that goes when the bucket is full
    Entry entry;
  };
  Place place_of(const Transaction& tx, size_t input_index, const TxOut& spent) const;
  bool holds(const Place& place) const EXCLUDES(mutex_);
  void insert(const Place& place) EXCLUDES(mutex_);

  const Bytes salt_;
  const size_t bucket_count_;

  mutable Mutex mutex_;  // leaf
  std::vector<Bucket> buckets_ GUARDED_BY(mutex_);
};

}  // namespace norvel
