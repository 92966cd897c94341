#include "mining/proof_of_work.h"

#include <gtest/gtest.h>

#include <limits>

#include "consensus/difficulty.h"

namespace norvel {

namespace {

TEST(ProofOfWork, HashMeetsTargetUpToAndIncludingIt) {
  const uint256 one(uint64_t{1});
  const uint256 target = difficulty::bits_to_target(0x1d00ffff);
  const struct {
    const char* label;
    uint256 hash;
    uint32_t bits;
    bool meets;
  } rows[] = {
      {"below", target - one, 0x1d00ffff, true},  {"equal", target, 0x1d00ffff, true},
      {"above", target + one, 0x1d00ffff, false}, {"only zero meets a zero target", uint256(), 0, true},
      {"one above a zero target", one, 0, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(mining::check_hash_meets_target(row.hash, row.bits), row.meets) << row.label;
  }
}

TEST(ProofOfWork, EstimateCountsLeadingZeroBits) {
  const struct {
    const char* label;
    double hashrate;
    uint32_t bits;
    double seconds;
  } rows[] = {
      {"no hash rate", 0, 0x1d00ffff, -1},
      {"negative hash rate", -5, 0x1d00ffff, -1},
      {"not a number", std::numeric_limits<double>::quiet_NaN(), 0x1d00ffff, -1},
      {"32 zero bits", 1e6, 0x1d00ffff, 4294.967296},
      {"33 zero bits", 1e6, 0x1c7fffff, 8589.934592},
      {"top bit set", 2, 0x2100ffff, 0.5},
      {"zero target: 256 bits", 1, 0, 0x1p256},
  };
  for (const auto& row : rows) {
    EXPECT_DOUBLE_EQ(mining::estimate_time_to_block(row.hashrate, row.bits), row.seconds) << row.label;
  }
}

}  // namespace

}  // namespace norvel
