#include "network/tx_orphan_pool.h"

#include <algorithm>

namespace norvel::network {

bool keeps_rules_without_inputs(const Transaction& tx) {
  // As if its first input brought all the money there is.
  OutputsByOutpoint assumed;
  for (const TxIn& input : tx.inputs) {
    assumed[input.prevout].value = assumed.empty() ? kMoneyMax : 0;
  }
  const auto unlocked = [](const Transaction&, size_t, const TxOut&) { return true; };
  std::string ignored;
  return validate_transaction(tx, assumed, unlocked, ignored);
}

bool TxOrphanPool::add(const Transaction& tx, const OutPoint& missing, const std::string& peer_key, int64_t now_s) {
  const uint256 txid = tx.get_txid();
  Entry entry{tx.serialize(), now_s, peer_key, missing};
  const MutexLock lock(mutex_);
  if (entry.bytes.size() > kEntryBytesMax || entries_.contains(txid)) {
    return false;
  }
  while (entries_.size() >= kEntriesMax || entry.bytes.size() > kBytesMax - total_bytes_) {
    evict_oldest();
  }
  const size_t added_bytes = entry.bytes.size();
  entries_.emplace(txid, std::move(entry));
  total_bytes_ += added_bytes;
  return true;
}

void TxOrphanPool::evict_oldest() {
  const auto oldest = std::ranges::min_element(
      entries_, [](const auto& left, const auto& right) { return left.second.time_s < right.second.time_s; });
  total_bytes_ -= oldest->second.bytes.size();
  entries_.erase(oldest);
}

void TxOrphanPool::set_missing(const uint256& txid, const OutPoint& missing) {
  const MutexLock lock(mutex_);
  if (const auto at = entries_.find(txid); at != entries_.end()) {
    at->second.missing = missing;
  }
}

std::vector<uint256> TxOrphanPool::remove_expired(int64_t now_s) {
  const MutexLock lock(mutex_);
  std::vector<uint256> expired;
  for (auto at = entries_.begin(); at != entries_.end();) {
    if (now_s - at->second.time_s <= kAgeMaxS) {
      ++at;
      continue;
    }
    expired.push_back(at->first);
    total_bytes_ -= at->second.bytes.size();
    at = entries_.erase(at);
  }
  return expired;
}

bool TxOrphanPool::remove(const uint256& txid) {
  const MutexLock lock(mutex_);
  const auto at = entries_.find(txid);
  if (at == entries_.end()) {
    return false;
  }
  total_bytes_ -= at->second.bytes.size();
  entries_.erase(at);
  return true;
}

std::vector<TxOrphanPool::Waiting> TxOrphanPool::list() const {
  const MutexLock lock(mutex_);
  std::vector<Waiting> waiting;
  waiting.reserve(entries_.size());
  for (const auto& [txid, entry] : entries_) {
    waiting.push_back({txid, entry.missing});
  }
  return waiting;
}

std::optional<Transaction> TxOrphanPool::get(const uint256& txid) const {
  Bytes bytes;
  {
    const MutexLock lock(mutex_);
    const auto at = entries_.find(txid);
    if (at == entries_.end()) {
      return std::nullopt;
    }
    bytes = at->second.bytes;
  }
  return Transaction::deserialize(bytes);
}

size_t TxOrphanPool::size() const {
  const MutexLock lock(mutex_);
  return entries_.size();
}

}  // namespace norvel::network
