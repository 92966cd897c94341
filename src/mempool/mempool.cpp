#include "mempool/mempool.h"

#include <algorithm>
#include <exception>
#include <limits>

#include "chain/transaction_rules.h"
#include "core/clock.h"

namespace norvel {

namespace {

// The size of a transaction whose bytes cannot be made, by its counts.
constexpr uint64_t kEstimatedInputBytes = 150;
constexpr uint64_t kEstimatedOutputBytes = 34;
constexpr uint64_t kEstimatedBaseBytes = 250;

uint64_t size_or_estimate(const Transaction& tx) {
  try {
    return tx.size();
  } catch (const std::exception&) {
    return kEstimatedInputBytes * tx.inputs.size() + kEstimatedOutputBytes * tx.outputs.size() + kEstimatedBaseBytes;
  }
}

MempoolEntry make_entry(const Transaction& tx, int64_t fee, uint64_t size) {
  MempoolEntry entry{tx, fee, size, static_cast<int64_t>(unix_time_seconds()), 0.0, false};
  if (size != 0) {
    entry.fee_rate = static_cast<double>(fee) / static_cast<double>(size);
  }
  return entry;
}

// Whether the lock time can keep the transaction out of a block.
bool is_time_locked(const Transaction& tx) {
  return tx.locktime != 0 && std::any_of(tx.inputs.begin(), tx.inputs.end(),
                                         [](const TxIn& input) { return input.sequence != kSequenceFinal; });
}

}  // namespace

Mempool::Mempool(size_t max_size) : max_size_(max_size) {}

bool Mempool::add_transaction(const Transaction& tx, int64_t fee, std::string& error) {
  const MutexLock lock(mutex_);
  return admit(tx, fee, error);
}

void Mempool::close() {
  const MutexLock lock(mutex_);
  closed_ = true;
}

bool Mempool::admit(const Transaction& tx, int64_t fee, std::string& error) {
  if (closed_) {
    error = kPoolClosed;
    return false;
  }
  const uint256 txid = tx.get_txid();
  if (entries_.contains(txid)) {
    error = kAlreadyInPool;
    return false;
  }
  if (tx.type == TransactionType::COINBASE) {
    error = "Coinbase transactions not allowed in mempool";
    return false;
  }
  for (const TxIn& input : tx.inputs) {
    if (spenders_.contains(input.prevout)) {
      error = "Input already spent in mempool";
      return false;
    }
  }
  const uint64_t size = size_or_estimate(tx);
  if (size > max_size_ - total_size_) {
    evict_cheapest();
  }
  if (size > max_size_ - total_size_) {
    error = "Mempool full";
    return false;
  }
  MempoolEntry entry = make_entry(tx, fee, size);
  entry.may_have_parents = has_parents(tx);
  insert(txid, std::move(entry));
  return true;
}

void Mempool::evict_cheapest() {
  // The limit of a rate that may be evicted; none reaches it, as no transaction has fewer than 21 bytes.
  constexpr double kEvictableFeeRateLimit = 0x1p63;
  if (by_fee_rate_.empty() || by_fee_rate_.begin()->first >= kEvictableFeeRateLimit) {
    return;
  }
  const uint256 victim = by_fee_rate_.begin()->second;
  if (has_children(victim)) {
    evicted_.push_back(victim);
  }
  remove(victim);
}

void Mempool::insert(const uint256& txid, MempoolEntry entry) {
  const auto of_size = size_counts_.try_emplace(entry.size, 0).first;
  const auto added = entries_.emplace(txid, std::move(entry)).first;
  const MempoolEntry& kept = added->second;
  total_size_ += kept.size;
  ++of_size->second;
  try {
    order_.emplace(kept);
    for (const TxIn& input : kept.tx.inputs) {
      spenders_.emplace(input.prevout, txid);
    }
    by_fee_rate_.emplace(kept.fee_rate, txid);
    if (is_time_locked(kept.tx)) {
      time_locked_.emplace(kept.tx.locktime, txid);
    }
  } catch (...) {
    unindex(txid, kept);
    entries_.erase(added);
    throw;
  }
  note_parents(txid);
}

bool Mempool::has_parents(const Transaction& tx) const {
  return std::any_of(tx.inputs.begin(), tx.inputs.end(),
                     [this](const TxIn& input) REQUIRES(mutex_) { return entries_.contains(input.prevout.txid); });
}

// Tells those that came before their parent `txid`.
void Mempool::note_parents(const uint256& txid) {
  for (auto spent = spenders_.lower_bound({txid, 0}); spent != spenders_.end() && spent->first.txid == txid; ++spent) {
    entries_.at(spent->second).may_have_parents = true;
  }
}

// Takes an entry out of everything but the entries themselves.
void Mempool::unindex(const uint256& txid, const MempoolEntry& entry) {
  for (const TxIn& input : entry.tx.inputs) {
    spenders_.erase(input.prevout);
  }
  by_fee_rate_.erase({entry.fee_rate, txid});
  order_.erase(SelectionKey(entry));
  const auto of_size = size_counts_.find(entry.size);
  if (--of_size->second == 0) {
    size_counts_.erase(of_size);
  }
  time_locked_.erase({entry.tx.locktime, txid});
  total_size_ -= entry.size;
}

void Mempool::remove(const uint256& txid) {
  const auto found = entries_.find(txid);
  if (found != entries_.end()) {
    unindex(txid, found->second);
    entries_.erase(found);
  }
}

bool Mempool::has_children(const uint256& txid) const {
  const auto spent = spenders_.lower_bound({txid, 0});
  return spent != spenders_.end() && spent->first.txid == txid;
}

void Mempool::remove_transaction(const uint256& txid) {
  const MutexLock lock(mutex_);
  remove(txid);
}

void Mempool::remove_block_transactions(const Block& block) {
  const MutexLock lock(mutex_);
  for (const Transaction& tx : block.transactions) {
    remove(tx.get_txid());
  }
}

size_t Mempool::remove_with_descendants(const uint256& txid) {
  const MutexLock lock(mutex_);
  const size_t count_before = entries_.size();
  Entries doomed;  // takes the nodes over, which needs no memory
  doomed.insert(entries_.extract(txid));
  while (!doomed.empty()) {
    const auto next = doomed.extract(doomed.begin());
    const uint256& id = next.key();
    for (auto spent = spenders_.lower_bound({id, 0}); spent != spenders_.end() && spent->first.txid == id; ++spent) {
      doomed.insert(entries_.extract(spent->second));  // nothing, where it is doomed already
    }
    unindex(id, next.mapped());
  }
  return count_before - entries_.size();
}

void Mempool::clear() {
  const MutexLock lock(mutex_);
  order_.clear();  // points into the entries
  entries_.clear();
  spenders_.clear();
  by_fee_rate_.clear();
  size_counts_.clear();
  time_locked_.clear();
  evicted_.clear();
  total_size_ = 0;
}

bool Mempool::is_spent(const OutPoint& outpoint) const {
  const MutexLock lock(mutex_);
  return spenders_.contains(outpoint);
}

std::optional<Transaction> Mempool::get_transaction(const uint256& txid) const {
  const MutexLock lock(mutex_);
  const auto found = entries_.find(txid);
  return found == entries_.end() ? std::nullopt : std::optional(found->second.tx);
}

std::vector<const MempoolEntry*> Mempool::select(SelectionLimits limits) const {
  limits.least_size = size_counts_.empty() ? 0 : size_counts_.begin()->first;
  return select_for_block({entries_, spenders_, order_}, limits);
}

std::vector<Transaction> Mempool::get_transactions_for_block(size_t max_bytes) const {
  return copy_selected({.bytes = max_bytes});
}

std::vector<Transaction> Mempool::get_transactions_for_block(size_t max_bytes, uint32_t height, uint64_t time) const {
  return copy_selected(
      {.bytes = max_bytes, .may_enter = [=](const Transaction& tx) { return is_final(tx, height, time); }});
}

std::vector<Transaction> Mempool::copy_selected(SelectionLimits limits) const {
  const MutexLock lock(mutex_);
  const std::vector<const MempoolEntry*> selected = select(std::move(limits));
  std::vector<Transaction> txs;
  txs.reserve(selected.size());
  for (const MempoolEntry* entry : selected) {
    txs.push_back(entry->tx);
  }
  return txs;
}

std::vector<uint256> Mempool::get_txids_for_block(size_t max_bytes, size_t count_max) const {
  const MutexLock lock(mutex_);
  const std::vector<const MempoolEntry*> selected = select({.bytes = max_bytes, .count = count_max});
  std::vector<uint256> txids;
  txids.reserve(selected.size());
  for (const MempoolEntry* entry : selected) {
    txids.push_back(entry->tx.get_txid());
  }
  return txids;
}

std::vector<std::pair<OutPoint, TxOut>> Mempool::get_unconfirmed_outputs_for_address(const Bytes& pubkey_hash) const {
  const MutexLock lock(mutex_);
  std::vector<std::pair<OutPoint, TxOut>> matches;
  for (const auto& [txid, entry] : entries_) {
    for (uint32_t i = 0; i < entry.tx.outputs.size(); ++i) {
      const OutPoint outpoint{txid, i};
      if (entry.tx.outputs[i].get_pubkey_hash() == pubkey_hash && !spenders_.contains(outpoint)) {
        matches.emplace_back(outpoint, entry.tx.outputs[i]);
      }
    }
  }
  return matches;
}

MempoolStats Mempool::get_stats() const {
  const MutexLock lock(mutex_);
  MempoolStats stats;
  stats.count = entries_.size();
  stats.total_bytes = total_size_;
  uint64_t fees = 0;
  for (const auto& [txid, entry] : entries_) {
    fees += static_cast<uint64_t>(entry.fee);
  }
  stats.total_fees = static_cast<int64_t>(fees);
  if (stats.total_bytes != 0) {
    stats.avg_fee_rate = static_cast<double>(stats.total_fees) / static_cast<double>(stats.total_bytes);
  }
  return stats;
}

size_t Mempool::size() const {
  const MutexLock lock(mutex_);
  return entries_.size();
}

uint64_t Mempool::size_bytes() const {
  const MutexLock lock(mutex_);
  return total_size_;
}

bool Mempool::has_transaction(const uint256& txid) const {
  const MutexLock lock(mutex_);
  return entries_.contains(txid);
}

const TxOut* Mempool::find_output(const OutPoint& outpoint) const {
  const auto found = entries_.find(outpoint.txid);
  if (found == entries_.end() || outpoint.index >= found->second.tx.outputs.size()) {
    return nullptr;
  }
  return &found->second.tx.outputs[outpoint.index];
}

bool Mempool::has_output(const OutPoint& outpoint) const {
  const MutexLock lock(mutex_);
  return find_output(outpoint) != nullptr;
}

std::optional<TxOut> Mempool::get_output(const OutPoint& outpoint) const {
  const MutexLock lock(mutex_);
  const TxOut* output = find_output(outpoint);
  return output == nullptr ? std::nullopt : std::optional(*output);
}

std::vector<OutPoint> Mempool::get_prevouts(const uint256& txid) const {
  const MutexLock lock(mutex_);
  std::vector<OutPoint> prevouts;
  if (const auto found = entries_.find(txid); found != entries_.end()) {
    prevouts.reserve(found->second.tx.inputs.size());
    for (const TxIn& input : found->second.tx.inputs) {
      prevouts.push_back(input.prevout);
    }
  }
  return prevouts;
}

std::optional<uint256> Mempool::get_spender(const OutPoint& outpoint) const {
  const MutexLock lock(mutex_);
  const auto found = spenders_.find(outpoint);
  return found == spenders_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<uint256> Mempool::get_children(const uint256& txid) const {
  const MutexLock lock(mutex_);
  std::set<uint256> children;
  for (auto spent = spenders_.lower_bound({txid, 0}); spent != spenders_.end() && spent->first.txid == txid; ++spent) {
    children.insert(spent->second);
  }
  return {children.begin(), children.end()};
}

std::vector<uint256> Mempool::get_txids() const {
  const MutexLock lock(mutex_);
  std::vector<uint256> txids;
  txids.reserve(entries_.size());
  for (const auto& [txid, entry] : entries_) {
    txids.push_back(txid);
  }
  return txids;
}

// Lock times below the threshold are heights, from it on times; either holds a
// transaction back until it is below what a block has.
std::vector<uint256> Mempool::get_not_final(uint32_t height, uint64_t time) const {
  const MutexLock lock(mutex_);
  std::vector<uint256> locked;
  for (auto at = time_locked_.lower_bound({height, uint256()});
       at != time_locked_.end() && at->first < kLockTimeThreshold; ++at) {
    locked.push_back(at->second);
  }
  if (time <= std::numeric_limits<uint32_t>::max()) {
    const auto first = std::max(static_cast<uint32_t>(time), kLockTimeThreshold);
    for (auto at = time_locked_.lower_bound({first, uint256()}); at != time_locked_.end(); ++at) {
      locked.push_back(at->second);
    }
  }
  return locked;
}

std::list<uint256> Mempool::take_evicted() noexcept {
  const MutexLock lock(mutex_);
  return std::exchange(evicted_, {});
}

void Mempool::put_back_evicted(std::list<uint256> evicted) noexcept {
  const MutexLock lock(mutex_);
  evicted_.splice(evicted_.end(), evicted);
}

}  // namespace norvel
