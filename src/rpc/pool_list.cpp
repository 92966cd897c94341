#include "rpc/pool_list.h"

#include <algorithm>

namespace norvel::rpc {

namespace {

// Serialized transactions asked for; of a larger pool the rest is not listed.
constexpr size_t kListBytesMax = 536'870'912;

}  // namespace

std::shared_ptr<const std::vector<uint256>> PoolList::read(const Mempool& pool) {
  const MutexLock lock(mutex_);
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin = Clock::now();
  if (txids_ == nullptr || txids_->size() <= kShortCountMax || begin >= good_until_) {
    txids_ = std::make_shared<const std::vector<uint256>>(pool.get_txids_for_block(kListBytesMax, kCountMax));
    const Clock::time_point end = Clock::now();
    good_until_ = end + std::max<Clock::duration>(kLongAge, kLongAgeReads * (end - begin));
  }
  return txids_;
}

}  // namespace norvel::rpc
