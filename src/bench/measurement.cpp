#include "bench/measurement.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <thread>

#include "bench/core_clock.h"
#include "bench/search_rates.h"
#include "mining/nonce_search.h"

namespace norvel::bench {

namespace {

constexpr size_t kRuns = 5;
using Runs = std::array<double, kRuns>;

double median(Runs runs) {
  std::ranges::sort(runs);
  return runs[kRuns / 2];
}

// A row to be, and the runs that it is the median of.
struct Task {
  Row row;
  std::function<double()> run;
  Runs rates = {};
};

std::string checked(const std::string& what, uint64_t checksum, uint64_t expected) {
  std::array<char, 17> text;
  std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(checksum));
  if (checksum != expected) {
    throw std::runtime_error("Wrong checksum of " + what + ": " + text.data());
  }
  return text.data();
}

// Every number up to eight, then the powers of two, then all.
std::vector<uint32_t> thread_counts() {
  const uint32_t all = std::max(std::thread::hardware_concurrency(), 1u);
  std::vector<uint32_t> counts;
  for (uint32_t count = 1; count < all; count < 8 ? ++count : count *= 2) {
    counts.push_back(count);
  }
  counts.push_back(all);
  return counts;
}

}  // namespace

Measurement measure(double run_seconds) {
  Measurement result;
  std::vector<Task> tasks;
  const uint64_t expected = plain_checksum();
  const auto add_tasks = [&](const std::string& what, uint64_t checksum, const auto& rate_with) {
    const std::string text = checked(what, checksum, expected);
    for (const uint32_t threads : thread_counts()) {
      tasks.push_back({Row{what, threads, 0, 0, text}, [=] { return rate_with(threads); }});
    }
  };
  for (const mining::SearchKernel& kernel : mining::search_kernels()) {
    if (!kernel.runs_here()) {
      result.skipped.emplace_back(kernel.name);
      continue;
    }
    add_tasks("kernel " + std::string(kernel.name), kernel_checksum(kernel),
              [&kernel, run_seconds](uint32_t threads) { return kernel_rate(kernel, threads, run_seconds); });
  }
  const mining::SearchKernel& best = mining::best_search_kernel();
  add_tasks("miner " + std::string(best.name), walk_checksum(best),
            [&best, run_seconds](uint32_t threads) { return miner_rate(best, threads, run_seconds); });

  Runs clocks;
  for (size_t i = 0; i < kRuns; ++i) {
    clocks[i] = measure_core_ghz();
    for (Task& task : tasks) {
      task.rates[i] = task.run();
    }
  }
  result.core_ghz = median(clocks);
  for (Task& task : tasks) {
    task.row.hashes_per_second = median(task.rates);
    task.row.cycles_per_hash = result.core_ghz * 1e9 * task.row.threads / task.row.hashes_per_second;
    result.rows.push_back(std::move(task.row));
  }
  return result;
}

}  // namespace norvel::bench
