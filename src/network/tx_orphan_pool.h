// Transactions that spend an output which neither the chain nor the pool has
// yet, held serialized: decoded ones can take many times as much memory.
//
// Limits: kEntriesMax entries, kBytesMax bytes, kTransactionBytesMax each; the
// oldest leaves first, of equal ones the first in txid order. Entries leave after
// kAgeMaxS seconds.
//
// Threads: safe from any thread; one mutex, a leaf.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "chain/transaction_rules.h"
#include "core/bytes.h"
#include "core/sync.h"
#include "core/transaction.h"
#include "core/uint256.h"

namespace norvel::network {

// Whether the transaction keeps every rule that can be checked without the
// outputs it spends.
bool keeps_rules_without_inputs(const Transaction& tx);

class TxOrphanPool {
 public:
  static constexpr size_t kEntriesMax = 200;
  static constexpr size_t kBytesMax = 5 << 20;
  static constexpr size_t kEntryBytesMax = kTransactionBytesMax;
  static constexpr int64_t kAgeMaxS = 300;

  struct Waiting {
    uint256 txid;
    OutPoint missing;
  };

  // Takes a copy; false for one that is held already or too large. `missing` is
  // the first output that was not found.
  bool add(const Transaction& tx, const OutPoint& missing, const std::string& peer_key, int64_t now_s) EXCLUDES(mutex_);

  // Remembers another output that the entry waits for.
  void set_missing(const uint256& txid, const OutPoint& missing) EXCLUDES(mutex_);

  // Removes what is older than kAgeMaxS, and returns its ids.
  std::vector<uint256> remove_expired(int64_t now_s) EXCLUDES(mutex_);

  bool remove(const uint256& txid) EXCLUDES(mutex_);

  std::vector<Waiting> list() const EXCLUDES(mutex_);  // by txid
  std::optional<Transaction> get(const uint256& txid) const EXCLUDES(mutex_);
  size_t size() const EXCLUDES(mutex_);

 private:
  struct Entry {
    Bytes bytes;
    int64_t time_s = 0;
    std::string peer_key;
    OutPoint missing;
  };

  void evict_oldest() REQUIRES(mutex_);

  mutable Mutex mutex_;  // leaf
  std::map<uint256, Entry> entries_ GUARDED_BY(mutex_);
  size_t total_bytes_ GUARDED_BY(mutex_) = 0;
};

}  // namespace norvel::network
