// The transactions that were accepted for relay and mining and are not yet in a
// block. A passive container: whoever offers a transaction has checked it.
//
// Invariants:
//   1. No two transactions spend the same outpoint, and none is a coinbase.
//   2. The total size is the sum of the entries' sizes and at most the limit.
// There is no replacement: of two that conflict the first stays.
//
// Cost: admission, eviction, removal and the look-ups are O(log n) for each
// transaction and outpoint concerned; the selection for a block reads the best
// entries until the rest cannot fit any more; the statistics and the search for
// an address read the whole pool.
//
// Errors: refusals are texts. At most std::bad_alloc is thrown; a transaction
// that was to be added is then not in the pool, though one may have been evicted
// for it. Removals need no memory.
//
// Threads: safe from any thread; one mutex, held for the whole of each operation
// and calling nothing outside.

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/block.h"
#include "core/sync.h"
#include "core/transaction.h"
#include "core/uint256.h"
#include "mempool/mempool_entry.h"
#include "mempool/mempool_selection.h"

namespace norvel {

// Why a transaction that the pool holds is not added again.
inline constexpr const char kAlreadyInPool[] = "Transaction already in mempool";

// Why a closed pool adds nothing.
inline constexpr const char kPoolClosed[] = "Node is stopping";

struct MempoolStats {
  uint64_t count = 0;
  uint64_t total_bytes = 0;
  int64_t total_fees = 0;     // base units, modulo 2^64
  double avg_fee_rate = 0.0;  // total_fees / total_bytes; 0.0 for an empty pool
};

class Mempool {
 public:
  // `max_size` in bytes of serialized transactions.
  explicit Mempool(size_t max_size);

  // Takes a copy of `tx`. When it does not fit, the entry with the lowest fee
  // rate (of equal ones the smallest txid) is evicted first, whatever `tx` pays,
  // and stays evicted even if `tx` is refused after all. Refusals, in this order:
  // kPoolClosed, kAlreadyInPool, "Coinbase transactions not allowed in mempool", "Input already
  // spent in mempool", "Mempool full".
  bool add_transaction(const Transaction& tx, int64_t fee, std::string& error) EXCLUDES(mutex_);

  // Nothing is added from here on, so that what is saved afterwards holds all
  // that was accepted.
  void close() EXCLUDES(mutex_);

  void remove_transaction(const uint256& txid) EXCLUDES(mutex_);

  // Removes the block's transactions; those that conflict with it stay.
  void remove_block_transactions(const Block& block) EXCLUDES(mutex_);

  bool is_spent(const OutPoint& outpoint) const EXCLUDES(mutex_);
  std::optional<Transaction> get_transaction(const uint256& txid) const EXCLUDES(mutex_);

  // Best fee rate first (then oldest), parents before their children, at most
  // `max_bytes` together; a transaction that does not fit is left out with its
  // descendants.
  std::vector<Transaction> get_transactions_for_block(size_t max_bytes) const EXCLUDES(mutex_);

  // The same without those, and their descendants, that a block of `height`
  // stamped `time` (seconds) cannot hold: they use none of the bytes up.
  std::vector<Transaction> get_transactions_for_block(size_t max_bytes, uint32_t height, uint64_t time) const
      EXCLUDES(mutex_);

  // The ids of the first `count_max` that get_transactions_for_block(max_bytes)
  // would return.
  std::vector<uint256> get_txids_for_block(size_t max_bytes,
                                           size_t count_max = std::numeric_limits<size_t>::max()) const
      EXCLUDES(mutex_);

  // Outputs paid to `pubkey_hash` that no pool transaction spends, by outpoint.
  std::vector<std::pair<OutPoint, TxOut>> get_unconfirmed_outputs_for_address(const Bytes& pubkey_hash) const
      EXCLUDES(mutex_);

  MempoolStats get_stats() const EXCLUDES(mutex_);
  size_t size() const EXCLUDES(mutex_);
  uint64_t size_bytes() const EXCLUDES(mutex_);
  void clear() EXCLUDES(mutex_);

  bool has_transaction(const uint256& txid) const EXCLUDES(mutex_);

  // Whether a pool transaction makes the output that `outpoint` names; a copy of it.
  bool has_output(const OutPoint& outpoint) const EXCLUDES(mutex_);
  std::optional<TxOut> get_output(const OutPoint& outpoint) const EXCLUDES(mutex_);

  // What the transaction spends, in input order; empty for one not in the pool.
  std::vector<OutPoint> get_prevouts(const uint256& txid) const EXCLUDES(mutex_);

  // The pool transaction that spends `outpoint`.
  std::optional<uint256> get_spender(const OutPoint& outpoint) const EXCLUDES(mutex_);

  // Ids of the pool transactions that spend outputs of `txid`, ascending.
  std::vector<uint256> get_children(const uint256& txid) const EXCLUDES(mutex_);

  // All ids, ascending.
  std::vector<uint256> get_txids() const EXCLUDES(mutex_);

  // Ids of the pool transactions whose lock time keeps them out of a block of
  // `height` stamped `time` (seconds), by lock time. Costs what it returns.
  std::vector<uint256> get_not_final(uint32_t height, uint64_t time) const EXCLUDES(mutex_);

  // Removes the transaction and all that spend its outputs, directly or not.
  // Returns how many went.
  size_t remove_with_descendants(const uint256& txid) EXCLUDES(mutex_);

  // Ids evicted for room since the last call that left children behind, and back
  // to where the next call finds them.
  std::list<uint256> take_evicted() noexcept EXCLUDES(mutex_);
  void put_back_evicted(std::list<uint256> evicted) noexcept EXCLUDES(mutex_);

 private:
  using Entries = std::map<uint256, MempoolEntry>;

  bool admit(const Transaction& tx, int64_t fee, std::string& error) REQUIRES(mutex_);
  void evict_cheapest() REQUIRES(mutex_);
  void insert(const uint256& txid, MempoolEntry entry) REQUIRES(mutex_);
  void unindex(const uint256& txid, const MempoolEntry& entry) REQUIRES(mutex_);
  void remove(const uint256& txid) REQUIRES(mutex_);
  const TxOut* find_output(const OutPoint& outpoint) const REQUIRES(mutex_);
  bool has_children(const uint256& txid) const REQUIRES(mutex_);
  bool has_parents(const Transaction& tx) const REQUIRES(mutex_);
  void note_parents(const uint256& txid) REQUIRES(mutex_);
  std::vector<const MempoolEntry*> select(SelectionLimits limits) const REQUIRES(mutex_);
  std::vector<Transaction> copy_selected(SelectionLimits limits) const EXCLUDES(mutex_);

  const uint64_t max_size_;  // bytes; constant after construction

  mutable Mutex mutex_;  // leaf
  Entries entries_ GUARDED_BY(mutex_);
  OutpointSpenders spenders_ GUARDED_BY(mutex_);
  std::set<std::pair<double, uint256>> by_fee_rate_ GUARDED_BY(mutex_);  // the next to evict first
  SelectionOrder order_ GUARDED_BY(mutex_);
  std::map<uint64_t, size_t> size_counts_ GUARDED_BY(mutex_);              // entries of each size; a 0 does no harm
  std::set<std::pair<uint32_t, uint256>> time_locked_ GUARDED_BY(mutex_);  // by lock time, where that counts
  std::list<uint256> evicted_ GUARDED_BY(mutex_);                          // those that left children behind
  uint64_t total_size_ GUARDED_BY(mutex_) = 0;                             // bytes
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace norvel
