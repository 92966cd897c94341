#include "mempool/mempool_selection.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

namespace norvel {

bool SelectedBefore::operator()(const SelectionKey& left, const SelectionKey& right) const {
  if (left.fee_rate != right.fee_rate || left.time != right.time) {
    return std::tuple(right.fee_rate, left.time) < std::tuple(left.fee_rate, right.time);
  }
  return left.entry != right.entry && left.entry->tx.get_txid() < right.entry->tx.get_txid();
}

namespace {

// One walk over the order. An entry met before a parent of it was selected waits;
// once its last parent is selected it is ready, and comes before all that follow.
class Selector {
 public:
  Selector(const PoolView& pool, const SelectionLimits& limits)
      : pool_(pool), limits_(limits), bytes_left_(limits.bytes) {}

  std::vector<const MempoolEntry*> run() {
    auto next = pool_.order.begin();
    while (bytes_left_ >= limits_.least_size && result_.size() < limits_.count) {
      const bool is_at_end = next == pool_.order.end();
      if (!ready_.empty() && (is_at_end || SelectedBefore()(*ready_.begin(), *next))) {
        const SelectionKey best = ready_.extract(ready_.begin()).value();
        consider(best);
      } else if (!is_at_end) {
        meet(*next++);
      } else {
        break;
      }
    }
    return std::move(result_);
  }

 private:
  void meet(const SelectionKey& key) {
    if (key.size > bytes_left_) {
      return;  // nor will it ever fit
    }
    const size_t missing = key.entry->may_have_parents ? count_missing(*key.entry) : 0;
    if (missing > 0) {
      waiting_.emplace(key.entry, missing);
    } else {
      consider(key);
    }
  }

  void consider(const SelectionKey& key) {
    if (key.size > bytes_left_ || (limits_.may_enter && !limits_.may_enter(key.entry->tx))) {
      return;
    }
    bytes_left_ -= key.size;
    result_.push_back(key.entry);
    selected_.insert(key.entry);
    if (!waiting_.empty()) {
      release_children(key.entry->tx.get_txid());
    }
  }

  // Outpoints of pool transactions that are not selected yet, each counted once.
  size_t count_missing(const MempoolEntry& entry) const {
    std::vector<OutPoint> missing;
    for (const TxIn& input : entry.tx.inputs) {
      const auto parent = pool_.entries.find(input.prevout.txid);
      if (parent != pool_.entries.end() && !selected_.contains(&parent->second)) {
        missing.push_back(input.prevout);
      }
    }
    std::sort(missing.begin(), missing.end());
    return static_cast<size_t>(std::unique(missing.begin(), missing.end()) - missing.begin());
  }

  void release_children(const uint256& parent) {
    for (auto spent = pool_.spenders.lower_bound({parent, 0});
         spent != pool_.spenders.end() && spent->first.txid == parent; ++spent) {
      const MempoolEntry& child = pool_.entries.at(spent->second);
      const auto waits = waiting_.find(&child);
      if (waits != waiting_.end() && --waits->second == 0) {
        waiting_.erase(waits);
        ready_.emplace(child);
      }
    }
  }

  const PoolView pool_;
  const SelectionLimits& limits_;
  uint64_t bytes_left_;
  std::vector<const MempoolEntry*> result_;
  std::unordered_set<const MempoolEntry*> selected_;
  std::unordered_map<const MempoolEntry*, size_t> waiting_;  // by count of missing outpoints
  SelectionOrder ready_;
};

}  // namespace

std::vector<const MempoolEntry*> select_for_block(const PoolView& pool, const SelectionLimits& limits) {
  return Selector(pool, limits).run();
}

}  // namespace norvel
