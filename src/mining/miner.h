// The nonce search: worker threads that mine private copies of the header of
// one current block, which a callback supplies.
//
// States: idle -> start() -> running -> stop() or the destructor -> idle. A
// failed start() leaves the Miner idle. Workers never end the run themselves.
//
// New work. The new-work flag is raised by the worker that found a block and
// falls when a refresh stores the next one. Beside it stands the work number,
// changed only under the mutex and noted by every copy; it grows when a finder's
// refresh stores a block, when any refresh stores one while the flag is up, and
// when the block replaced had a zero target, which nothing can meet. Workers
// switch when the number differs from theirs; the flag only makes them wait for
// the request under way. So a refresh that fails, and leaves the flag up, lets
// all go on with the block they have, and a periodic refresh moves nobody but
// the worker that made it.
//
// Groups. Workers test nonces in groups (mining/nonce_walk.h), a group in less
// than a microsecond where the best kernel is used. Only between two groups do
// they look at the flags, and worker 0 at the clock; all else is as it would be
// header by header.
//
// Threads: start(), stop(), set_threads() and the public fields belong to the
// owner's thread; stop() must not be called from a callback. The callbacks run
// on workers, get_block_template also on the thread in start() and under the
// mutex.

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/block.h"
#include "core/sync.h"
#include "mining/mining_stats.h"
#include "mining/nonce_search.h"

namespace norvel {

struct MiningCallbacks {
  // Called by the worker that found the block, before the template is renewed.
  std::function<void(const Block&)> on_block_found;

  // Called by worker 0 about once a second.
  std::function<void(const MiningStats&)> on_stats_update;

  // Called at start and at every refresh; may throw when there is no block.
  std::function<Block()> get_block_template;
};

class Miner {
 public:
  // More threads than this are refused by start().
  static constexpr uint64_t kThreadsMax = 4'096;

  // How far apart the workers' start nonces lie, and after how many of its own
  // hashes worker 0 renews the template.
  static constexpr uint32_t kNonceSpacing = 10'000'000;
  static constexpr uint64_t kRefreshHashes = 10'000'000;

  // 0 threads: as many as the hardware has, at least 1. `kernel` must run here
  // and outlive the Miner.
  explicit Miner(uint64_t threads, const mining::SearchKernel& kernel = mining::best_search_kernel());
  ~Miner();
  Miner(const Miner&) = delete;
  Miner& operator=(const Miner&) = delete;

  // Refused, with a line on standard error, while running.
  void set_threads(uint64_t threads);
  uint64_t thread_count() const { return thread_count_; }

  // Fetches the first block and starts the workers. False when already running,
  // without address or template callback, above kThreadsMax, when the callback
  // throws, or when a thread cannot be created; no thread is left then.
  bool start() EXCLUDES(mutex_);

  // Ends and joins all workers; nothing when not running.
  void stop();

  // True from stop() on until the next start(). A template callback that waits
  // for a remote party polls this.
  bool stop_requested() const { return stop_requested_.load(); }

  // Fetches a new current block. Nothing happens without a callback or once a
  // stop is requested; a failure is printed and the block stays.
  void update_template() EXCLUDES(mutex_) { refresh_template(false); }

  // Searches all nonces of `block` from 0 on the calling thread. True with the
  // nonce in the header, false when `stop_flag` was set or no nonce is left.
  bool mine_block(Block& block, const std::atomic<bool>& stop_flag);

  // The body of worker thread `index`, below kThreadsMax; returns when a stop is
  // requested.
  void mine_worker(uint64_t index) EXCLUDES(mutex_);

  // Set by the owner before start().
  std::string mining_address;
  MiningCallbacks callbacks;

  MiningStats stats;

  // Set by start(), cleared by stop(); the owner polls it, and a stale value
  // only delays that by one poll.
  std::atomic<bool> running{false};

 private:
  struct Worker;

  void refresh_template(bool by_finder) EXCLUDES(mutex_);
  void copy_work(Worker& worker) const REQUIRES(mutex_);
  void follow_new_work(Worker& worker) const EXCLUDES(mutex_);
  void handle_found_block(Worker& worker) EXCLUDES(mutex_);
  void renew_header_time(Worker& worker);
  static void look_at_clock(Worker& worker);
  void update_statistics(Worker& worker);
  void join_workers();

  const mining::SearchKernel& kernel_;
  uint64_t thread_count_;
  std::vector<std::thread> threads_;

  // Written by the owner's thread, read by the workers once per group; seeing
  // it late costs a few hashes.
  std::atomic<bool> stop_requested_{false};

  // Raised by finders, lowered under the mutex; a late look at it costs hashes
  // on old work, and the work number tells what the flag no longer does.
  std::atomic<bool> new_work_{false};

  // Written under the mutex, read by the workers once per group.
  std::atomic<uint64_t> work_number_{0};

  mutable Mutex mutex_;  // held while the template callback runs

  // Replaced whole, so that a copy of the work costs a header and no memory.
  std::shared_ptr<const Block> current_block_ GUARDED_BY(mutex_) = std::make_shared<const Block>();
};

}  // namespace norvel
