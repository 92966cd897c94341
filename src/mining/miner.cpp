#include "mining/miner.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <string>

#include "consensus/difficulty.h"
#include "core/clock.h"
#include "core/console.h"

namespace norvel {

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr auto kSecond = std::chrono::seconds(1);

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
  explicit Worker(uint64_t index) : start_nonce(static_cast<uint32_t>(index) * kNonceSpacing) {}

  const uint32_t start_nonce;
  std::shared_ptr<const Block> block;  // shared with the others, never changed
  BlockHeader header;                  // the private copy that is searched
  uint64_t work_number = 0;
  bool saw_flag = false;  // since the flag rose
  uint64_t hashes = 0;
  SteadyClock::time_point last_header_time = SteadyClock::now();
  SteadyClock::time_point last_stats = last_header_time;
};

Miner::Miner(uint64_t threads) : thread_count_(choose_thread_count(threads)) {
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
    for (uint64_t i = 0; i < thread_count_; ++i) {
      threads_.emplace_back(&Miner::mine_worker, this, i);
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
  worker.header = current_block_->header;
  worker.header.nonce = worker.start_nonce;
  worker.work_number = work_number_;
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
      found.header = worker.header;
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
  const auto now = SteadyClock::now();
  if (now - worker.last_stats <= kSecond) {
    return;
  }
  worker.last_stats = now;
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

void Miner::mine_worker(uint64_t index) {
  Worker worker(index);
  const auto stride = static_cast<uint32_t>(thread_count_);
  {
    const MutexLock lock(mutex_);
    copy_work(worker);
  }
  while (!stop_requested_) {
    if (index == 0 && SteadyClock::now() - worker.last_header_time >= kSecond) {
      worker.last_header_time = SteadyClock::now();
      worker.header.timestamp = unix_time_seconds();
    }
    follow_new_work(worker);
    if (worker.header.check_proof_of_work()) {
      handle_found_block(worker);
    }
    worker.header.nonce += stride;
    stats.total_hashes.fetch_add(1, std::memory_order_relaxed);
    ++worker.hashes;
    if (index == 0) {
      update_statistics(worker);
      if (worker.hashes % kRefreshHashes == 0) {
        refresh_template(false);
        const MutexLock lock(mutex_);
        copy_work(worker);
      }
    }
  }
}

bool Miner::mine_block(Block& block, const std::atomic<bool>& stop_flag) {
  block.header.nonce = 0;
  block.invalidate_cache();
  do {
    if (stop_flag) {
      return false;
    }
    if (block.header.check_proof_of_work()) {
      return true;
    }
    ++block.header.nonce;
  } while (block.header.nonce != 0);
  return false;
}

}  // namespace norvel
