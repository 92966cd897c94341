// What norvel-bench measures: a row for each kernel that runs here, and for the
// miner, with each number of threads.
//
// Threads: free functions without state.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace norvel::bench {

struct Row {
  std::string what;  // "kernel NAME" or "miner NAME"
  uint32_t threads = 0;
  double hashes_per_second = 0;
  double cycles_per_hash = 0;  // core clock × threads ÷ hash rate
  std::string checksum;        // of the nonces found in a fixed range, 16 hexadecimal digits
};

struct Measurement {
  double core_ghz = 0;
  std::vector<Row> rows;
  std::vector<std::string> skipped;  // kernels that this machine cannot run
};

// Medians of five runs of `run_seconds` each, the runs of a row spread over the
// whole time. Throws std::runtime_error when a kernel finds other nonces than it
// should, or a miner does not start.
Measurement measure(double run_seconds);

}  // namespace norvel::bench
