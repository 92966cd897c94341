#include "core/parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

namespace norvel {
namespace {

TEST(ParallelFor, TakesEachTurnOnce) {
  for (const size_t count : {0, 1, 2, 3, 4, 5, 1'000}) {
    std::vector<std::atomic<int>> calls(count);
    parallel_for(count, [&](size_t i) { ++calls[i]; });
    for (const auto& turn : calls) {
      EXPECT_EQ(turn, 1) << count;
    }
  }
}

TEST(ParallelFor, ThrowsWhatATurnThrowsAndBeginsNoMore) {
  for (const size_t count : {1, 100'000}) {
    std::atomic<size_t> calls{0};
    const auto work = [&](size_t) {
      ++calls;
      throw std::runtime_error("turn");
    };
    EXPECT_THROW(parallel_for(count, work), std::runtime_error);
    EXPECT_LT(calls, 10'000u);
  }
}

}  // namespace
}  // namespace norvel
