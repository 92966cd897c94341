// The ids of the pool's transactions for all who ask. A long list, which locks the
// pool for up to seconds, is read once a second at most.
//
// Threads: safe from any thread; who asks meanwhile waits for what is read.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/sync.h"
#include "core/uint256.h"
#include "mempool/mempool.h"

namespace norvel::rpc {

class PoolList {
 public:
  // Of these the answer, 67 bytes for each, and the memory to write it are bounded.
  static constexpr size_t kCountMax = 480'000;

  // Up to here a list is read anew at each call, in a few milliseconds.
  static constexpr size_t kShortCountMax = 10'000;

  // How long a longer list stands, at least; else this many times as long as
  // reading it took, so that the pool is not locked for most of the time.
  static constexpr std::chrono::seconds kLongAge{1};
  static constexpr int kLongAgeReads = 10;

  // In the order in which blocks take them; the best kCountMax of a larger pool.
  // `pool` is the same at each call.
  std::shared_ptr<const std::vector<uint256>> read(const Mempool& pool) EXCLUDES(mutex_);

 private:
  Mutex mutex_;  // the pool is locked while it is held
  std::shared_ptr<const std::vector<uint256>> txids_ GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point good_until_ GUARDED_BY(mutex_);
};

}  // namespace norvel::rpc
