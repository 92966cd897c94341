#include "core/parallel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <vector>

namespace norvel {
namespace {

TEST(ParallelFor, TakesEachTurnOnce) {
  for (size_t count = 0; count < 40; ++count) {
    std::vector<std::atomic<int>> calls(count);
    parallel_for(count, [&](size_t i) { ++calls[i]; });
    EXPECT_TRUE(std::all_of(calls.begin(), calls.end(), [](const auto& turn) { return turn == 1; })) << count;
  }
}

TEST(ParallelFor, ThrowsWhatATurnThrowsAndBeginsNoMore) {
  constexpr size_t kTurns = 10'000'000;
  std::atomic<size_t> calls{0};
  const auto work = [&](size_t i) {
    ++calls;
    if (i == 0) {
      throw std::runtime_error("first turn");
    }
  };
  EXPECT_THROW(parallel_for(1, work), std::runtime_error);
  EXPECT_THROW(parallel_for(kTurns, work), std::runtime_error);
  EXPECT_LT(calls, kTurns);
}

}  // namespace
}  // namespace norvel
