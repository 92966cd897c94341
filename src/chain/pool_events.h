// Changes of the active chain that wait to be told to the pool, in the order in
// which they happened.
//
// Threads: safe from any thread.

#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "core/block.h"
#include "core/sync.h"
#include "core/uint256.h"

namespace norvel {

struct PoolEvent {
  enum class Kind { BLOCK_CONNECTED, BLOCK_DISCONNECTED, TIP_CHANGED };

  Kind kind = Kind::TIP_CHANGED;
  uint256 hash;                        // of the block
  std::shared_ptr<const Block> block;  // null: to be read from disk when told, so that a long
                                       // reorganisation does not hold all its blocks in memory
};

class PoolEvents {
 public:
  void push(std::vector<PoolEvent> events) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    events_.insert(events_.end(), events.begin(), events.end());
  }

  std::optional<PoolEvent> pop() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (events_.empty()) {
      return std::nullopt;
    }
    PoolEvent first = std::move(events_.front());
    events_.pop_front();
    return first;
  }

 private:
  Mutex mutex_;  // leaf
  std::deque<PoolEvent> events_ GUARDED_BY(mutex_);
};

}  // namespace norvel
