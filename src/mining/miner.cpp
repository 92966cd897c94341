#include "mining/miner.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <string>

#include "consensus/difficulty.h"
#include "core/clock.h"
#include "core/console.h"
#include "mining/nonce_walk.h"

namespace norvel {

namespace {

constexpr auto kSecond = std::chrono::seconds(1);
constexpr uint64_t kNonceCount = uint64_t{1} << 32;

// Worker 0 looks at the clock between two groups when it has tested so many
// headers, a few microseconds' worth: a look costs a fifth of a header or more.
constexpr uint64_t kHashesPerLook = 64;

uint64_t choose_thread_count(uint64_t requested) {
  return requested != 0 ? requested : std::max(std::thread::hardware_concurrency(), 1u);
}

// Calls back from a worker; mining goes on when that throws.
template <class Call>
void call_guarded(const Call& call) {
  try {
    call();
  } catch (const std::exception& failure) {
    console::error_line(std::string("[Miner] Error in callback: ") + failure.what());
  }
}

}  // namespace

// A worker's private state.
struct Miner::Worker {
  explicit Worker(const mining::NonceWalk& start) : walk(start) {}

  mining::NonceWalk walk;              // with the private copy of the header
  std::shared_ptr<const Block> block;  // shared with the others, never changed
  uint64_t work_number = 0;
  bool saw_flag = false;                                   // since the flag rose
  uint64_t next_look = 0;                                  // at the clock, in hashes
  std::chrono::nanoseconds now = coarse_monotonic_time();  // at the last look; worker 0 renews it and the two below
  std::chrono::nanoseconds last_header_time = now;
  std::chrono::nanoseconds last_stats = now;
};

Miner::Miner(uint64_t threads, const mining::SearchKernel& kernel)
    : kernel_(kernel), thread_count_(choose_thread_count(threads)) {
  stats.total_hashes.reserve(kThreadsMax);
  stats.start_time = std::time(nullptr);
}

Miner::~Miner() {
  stop();
  join_workers();
}

void Miner::set_threads(uint64_t threads) {
  if (running) {
    console::error_line("[Miner] Cannot change threads while mining");
    return;
  }
  thread_count_ = choose_thread_count(threads);
}

bool Miner::start() {
  if (running) {
    return false;
  }
  if (mining_address.empty()) {
    console::error_line("[Miner] Error: Miner address not set!");
    return false;
  }
  if (!callbacks.get_block_template) {
    console::error_line("[Miner] Error: No block template callback set!");
    return false;
  }
  if (thread_count_ > kThreadsMax) {
    return false;
  }
  if (!threads_.empty()) {
    join_workers();  // the owner cleared `running` by hand
  }
  stop_requested_ = false;  // before the callback, which may poll it
  try {
    const MutexLock lock(mutex_);
    current_block_ = std::make_shared<const Block>(callbacks.get_block_template());
  } catch (const std::exception& failure) {
    console::error_line(std::string("[Miner] Error getting block template: ") + failure.what());
    return false;
  }
  running = true;
  new_work_ = false;
  try {
    // Workers begin when the last one exists: those that search already would slow down the making of the others.
    const MutexLock lock(mutex_);
    try {
      for (uint64_t i = 0; i < thread_count_; ++i) {
        threads_.emplace_back(&Miner::mine_worker, this, i);
      }
    } catch (const std::exception&) {
      stop_requested_ = true;  // before the lock goes: those that exist shall test nothing
      throw;
    }
  } catch (const std::exception&) {
    running = false;
    join_workers();
    return false;
  }
  return true;
}

void Miner::stop() {
  if (!running) {
    return;
  }
  console::write_out("\n[Miner] Stopping miner...\n");
  stop_requested_ = true;
  running = false;
  join_workers();
  console::write_out("[Miner] Miner stopped\n");
}

void Miner::join_workers() {
  stop_requested_ = true;
  for (std::thread& thread : threads_) {
    if (thread.joinable()) {
      thread.join();
    }
  }
  threads_.clear();
}

void Miner::refresh_template(bool by_finder) {
  if (!callbacks.get_block_template) {
    return;
  }
  const MutexLock lock(mutex_);
  if (stop_requested_) {
    return;
  }
  try {
    auto fresh = std::make_shared<const Block>(callbacks.get_block_template());
    const bool was_hopeless = difficulty::bits_to_target(current_block_->header.bits).is_zero();
    current_block_ = std::move(fresh);
    const bool flag_was_up = new_work_.exchange(false);
    if (by_finder || was_hopeless || flag_was_up) {
      ++work_number_;
    }
  } catch (const std::exception& failure) {
    console::error_line(std::string("[Miner] Error updating template: ") + failure.what());
  }
}

void Miner::copy_work(Worker& worker) const {
  worker.block = current_block_;
  worker.walk.restart(current_block_->header);
  worker.work_number = work_number_;
  worker.next_look = 0;  // what led here may have taken its time
}

void Miner::follow_new_work(Worker& worker) const {
  const bool flag_up = new_work_;
  const bool flag_rose = flag_up && !worker.saw_flag;
  worker.saw_flag = flag_up;
  if (flag_rose || work_number_ != worker.work_number) {
    const MutexLock lock(mutex_);  // waits for the request under way
    if (work_number_ != worker.work_number) {
      copy_work(worker);
    }
  }
}

void Miner::handle_found_block(Worker& worker) {
  ++stats.blocks_found;
  call_guarded([&] {
    if (callbacks.on_block_found) {
      Block found = *worker.block;
      found.header = worker.walk.header();
      found.invalidate_cache();
      callbacks.on_block_found(found);
    }
  });
  new_work_ = true;
  refresh_template(true);
  const MutexLock lock(mutex_);
  copy_work(worker);
}

void Miner::update_statistics(Worker& worker) {
  look_at_clock(worker);
  if (worker.now - worker.last_stats <= kSecond) {
    return;
  }
  worker.last_stats = worker.now;
  const std::time_t elapsed = std::time(nullptr) - stats.start_time;
  stats.uptime_seconds = elapsed > 0 ? static_cast<uint64_t>(elapsed) : 0;
  if (elapsed > 0) {
    stats.hashrate = static_cast<double>(stats.total_hashes.load()) / static_cast<double>(elapsed);
  }
  call_guarded([&] {
    if (callbacks.on_stats_update) {
      callbacks.on_stats_update(MiningStats(stats));
    }
  });
}

void Miner::renew_header_time(Worker& worker) {
  look_at_clock(worker);
  if (worker.now - worker.last_header_time >= kSecond) {
    worker.last_header_time = worker.now;
    worker.walk.set_timestamp(unix_time_seconds());
  }
}

void Miner::look_at_clock(Worker& worker) {
  if (worker.walk.hashes() >= worker.next_look) {
    worker.next_look = worker.walk.hashes() + kHashesPerLook;
    worker.now = coarse_monotonic_time();
  }
}

void Miner::mine_worker(uint64_t index) {
  const mining::NonceWalk::Plan plan = {static_cast<uint32_t>(index) * kNonceSpacing,
                                        static_cast<uint32_t>(thread_count_), kRefreshHashes};
  Worker worker(mining::NonceWalk(kernel_, plan, stats.total_hashes.stripe(index)));
  {
    const MutexLock lock(mutex_);
    copy_work(worker);
  }
  if (!stop_requested_) {
    (void)worker.walk.header().check_proof_of_work();  // the thread's hash context is made now, not at the first find
  }
  while (!stop_requested_) {
    if (index == 0) {
      renew_header_time(worker);
    }
    follow_new_work(worker);
    if (worker.walk.search_group()) {
      handle_found_block(worker);
      worker.walk.pass_found();
    }
    if (index == 0) {
      update_statistics(worker);
      if (worker.walk.is_lap_done()) {
        refresh_template(false);
        const MutexLock lock(mutex_);
        copy_work(worker);
      }
    }
  }
}

bool Miner::mine_block(Block& block, const std::atomic<bool>& stop_flag) {
  StripedCounter::Stripe uncounted;
  mining::NonceWalk walk(kernel_, {.start_nonce = 0, .stride = 1, .lap_hashes = kNonceCount}, uncounted);
  walk.restart(block.header);
  bool found = false;
  while (!found && !walk.is_lap_done() && !stop_flag) {
    found = walk.search_group();
  }
  block.header.nonce = walk.header().nonce;
  block.invalidate_cache();
  return found;
}

}  // namespace norvel
