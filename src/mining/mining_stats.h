// What a Miner counts, for dashboards.

#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "mining/striped_counter.h"

namespace norvel {

// Each field is an atomic of its own, the total a striped one that reads and is
// assigned like an atomic uint64_t: a copy is a snapshot field by field, not of
// one instant, which is fine for figures that are shown once a second.
//
// total_hashes and blocks_found are written by every worker, hashrate and
// uptime_seconds by worker 0; the owner reads them all.
struct MiningStats {
  StripedCounter total_hashes;              // headers tested since start
  std::atomic<uint64_t> blocks_found{0};    // blocks that met the target, whatever the node said
  std::atomic<double> hashrate{0.0};        // hashes per second since start_time
  std::time_t start_time = 0;               // wall clock, set when the Miner is made
  std::atomic<uint64_t> uptime_seconds{0};  // wall clock

  MiningStats() = default;
  MiningStats(const MiningStats& other)
      : total_hashes(other.total_hashes.load()),
        blocks_found(other.blocks_found.load()),
        hashrate(other.hashrate.load()),
        start_time(other.start_time),
        uptime_seconds(other.uptime_seconds.load()) {}
  MiningStats& operator=(const MiningStats&) = delete;
};

}  // namespace norvel
