// Changes of the active chain that wait to be told to the pool, in the order in
// which they happened.
//
// Threads: safe from any thread; front() and pop_front() belong to the one that
// tells.

#pragma once

#include <list>
#include <memory>

#include "core/block.h"
#include "core/sync.h"
#include "core/uint256.h"

namespace norvel {

struct PoolEvent {
  enum class Kind { BLOCK_CONNECTED, BLOCK_DISCONNECTED, TIP_CHANGED };

  Kind kind = Kind::TIP_CHANGED;
  uint256 hash = {};                             // of the block
  std::shared_ptr<const Block> block = nullptr;  // null: to be read from disk when told, so that a long
                                                 // reorganisation does not hold all its blocks in memory
};

class PoolEvents {
 public:
  // Never fails, so that a change of the chain is never left untold.
  void push(std::list<PoolEvent> events) noexcept EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    events_.splice(events_.end(), events);
  }

  // Null when nothing waits; valid until pop_front().
  PoolEvent* front() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return events_.empty() ? nullptr : &events_.front();
  }

  void pop_front() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    events_.pop_front();
  }

 private:
  Mutex mutex_;  // leaf
  std::list<PoolEvent> events_ GUARDED_BY(mutex_);
};

}  // namespace norvel
