// Every unspent transaction output of the active chain, by its outpoint.
//
// The set does not validate: spending an absent outpoint is silently nothing,
// and unapplying a transaction does not bring back what its inputs spent.
//
// Threads: safe from any thread, one operation at a time. A block's worth of
// operations is made atomic by its caller's lock.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "core/sync.h"
#include "core/transaction.h"

namespace norvel {

class UTXOSet {
 public:
  // Inserts, or overwrites the entry with the same key.
  void add_utxo(const OutPoint& outpoint, const TxOut& txout) EXCLUDES(mutex_);
  void remove_utxo(const OutPoint& outpoint) EXCLUDES(mutex_);
  std::optional<TxOut> get_utxo(const OutPoint& outpoint) const EXCLUDES(mutex_);
  bool has_utxo(const OutPoint& outpoint) const EXCLUDES(mutex_);

  // Erases what the inputs of `tx` spend, then adds its outputs whole. A
  // coinbase input spends nothing.
  void apply_transaction(const Transaction& tx) EXCLUDES(mutex_);

  // Erases the outputs of `tx`; does not restore what it spent.
  void unapply_transaction(const Transaction& tx) EXCLUDES(mutex_);

  // Sum of the values paid to `pubkey_hash`, in base units, modulo 2^64; linear
  // in the set.
  int64_t get_balance(const Bytes& pubkey_hash) const EXCLUDES(mutex_);

  // The outputs paid to `pubkey_hash`, by outpoint; linear in the set.
  std::vector<std::pair<OutPoint, TxOut>> get_utxos_for_address(const Bytes& pubkey_hash) const EXCLUDES(mutex_);

  std::map<OutPoint, TxOut> get_all() const EXCLUDES(mutex_);
  size_t size() const EXCLUDES(mutex_);
  void clear() EXCLUDES(mutex_);

  // Calls `visitor` with every entry, by outpoint, without a copy of the set.
  // The set is locked meanwhile, so the visitor must not call it.
  void visit(const std::function<void(const OutPoint&, const TxOut&)>& visitor) const EXCLUDES(mutex_);

  // Calls `visitor` with the first `count_max` entries behind `outpoint`, or of all
  // without one, under one lock as visit() does. The last of them; nothing at the
  // end of the set.
  std::optional<OutPoint> visit_after(const std::optional<OutPoint>& outpoint, size_t count_max,
                                      const std::function<void(const OutPoint&, const TxOut&)>& visitor) const
      EXCLUDES(mutex_);

  // Replaces the set by `ascending`, which is sorted by outpoint without
  // repetition; linear. The set is unchanged when memory runs out.
  void assign(std::vector<std::pair<OutPoint, TxOut>> ascending) EXCLUDES(mutex_);

  // Writes the whole set:
  //   count              4  little-endian
  //   count times, by outpoint:
  //     length of key    4
  //     key              v  OutPoint
  //     length of value  4
  //     value            v  TxOut
  // False when the file cannot be opened or written in full. An output whose
  // note is over 65,535 bytes, which none that was read can be, does not load.
  bool save_to_file(const std::string& path) const EXCLUDES(mutex_);

  // Replaces the set by a file's content. False when the file cannot be opened,
  // with the set as it was, or is not such a file whole, with the set empty.
  bool load_from_file(const std::string& path) EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;  // leaf
  std::map<OutPoint, TxOut> outputs_ GUARDED_BY(mutex_);
};

}  // namespace norvel
