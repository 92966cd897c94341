#include "bench/search_rates.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "core/block.h"
#include "mining/miner.h"
#include "mining/nonce_walk.h"

namespace norvel::bench {

namespace {

constexpr uint32_t kUnreachableBits = 0x1b00ffff;  // a hash in 2^48 meets it
constexpr uint32_t kDenseBits = 0x200fffff;        // one in 16
constexpr uint32_t kRangeStart = 0xffff8000;
constexpr uint32_t kRangeNonces = 65'536;

using Clock = std::chrono::steady_clock;

BlockHeader sample_header(uint32_t bits) {
  BlockHeader header;
  header.prev_hash = uint256(uint64_t{0x0123456789abcdef});
  header.merkle_root = uint256(uint64_t{0xfedcba9876543210});
  header.timestamp = 1'700'000'000;
  header.bits = bits;
  return header;
}

// FNV-1a over 32-bit words.
class Digest {
 public:
  void add(uint32_t nonce) { value_ = (value_ ^ nonce) * 0x100000001b3; }
  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0xcbf29ce484222325;
};

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

double kernel_rate(const mining::SearchKernel& kernel, uint32_t threads, double seconds) {
  std::vector<uint64_t> hashes(threads);
  std::atomic<bool> may_begin{false};  // set when every runner exists, so that none is ahead of the clock
  std::vector<std::jthread> runners;
  for (uint32_t i = 0; i < threads; ++i) {
    runners.emplace_back([&kernel, &hashes, &may_begin, i](const std::stop_token& stop) {
      const mining::PreparedHeader header(sample_header(kUnreachableBits));
      uint32_t nonce = i * Miner::kNonceSpacing;
      uint64_t tested = 0;
      while (!may_begin && !stop.stop_requested()) {
        std::this_thread::yield();
      }
      do {
        kernel.test_group(header, nonce, 1);
        nonce += kernel.lanes;
        tested += kernel.lanes;
      } while (!stop.stop_requested());
      hashes[i] = tested;
    });
  }
  const auto start = Clock::now();
  may_begin = true;
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  for (std::jthread& runner : runners) {
    runner.request_stop();
  }
  runners.clear();
  return static_cast<double>(std::accumulate(hashes.begin(), hashes.end(), uint64_t{0})) / seconds_since(start);
}

double miner_rate(const mining::SearchKernel& kernel, uint32_t threads, double seconds) {
  Miner miner(threads, kernel);
  miner.mining_address = "none";
  miner.callbacks.get_block_template = [] {
    Block block;
    block.header = sample_header(kUnreachableBits);
    return block;
  };
  if (!miner.start()) {
    throw std::runtime_error("A miner with " + std::to_string(threads) + " threads does not start");
  }
  const uint64_t before = miner.stats.total_hashes;
  const auto start = Clock::now();
  uint64_t tested = 0;
  while (tested == 0) {  // a busy machine may give the workers no time at all
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    tested = miner.stats.total_hashes - before;
  }
  const double elapsed = seconds_since(start);
  miner.running = false;  // the destructor ends the workers; stop() would print
  return static_cast<double>(tested) / elapsed;
}

uint64_t plain_checksum() {
  Digest digest;
  BlockHeader header = sample_header(kDenseBits);
  for (uint32_t i = 0; i < kRangeNonces; ++i) {
    header.nonce = kRangeStart + i;
    if (header.check_proof_of_work()) {
      digest.add(header.nonce);
    }
  }
  return digest.value();
}

uint64_t kernel_checksum(const mining::SearchKernel& kernel) {
  Digest digest;
  const mining::PreparedHeader header(sample_header(kDenseBits));
  for (uint32_t done = 0; done < kRangeNonces; done += kernel.lanes) {
    const uint32_t named = kernel.test_group(header, kRangeStart + done, 1);
    for (uint32_t i = 0; i < std::min(kernel.lanes, kRangeNonces - done); ++i) {
      if ((named >> i & 1) != 0) {
        digest.add(kRangeStart + done + i);
      }
    }
  }
  return digest.value();
}

uint64_t walk_checksum(const mining::SearchKernel& kernel) {
  Digest digest;
  StripedCounter::Stripe tested;
  mining::NonceWalk walk(kernel, {.start_nonce = kRangeStart, .stride = 1, .lap_hashes = kRangeNonces}, tested);
  walk.restart(sample_header(kDenseBits));
  while (!walk.is_lap_done()) {
    if (walk.search_group()) {
      digest.add(walk.header().nonce);
      walk.pass_found();
    }
  }
  return digest.value();
}

}  // namespace norvel::bench
