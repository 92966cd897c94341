#include "consensus/difficulty.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/ledger_samples.h"

namespace norvel::difficulty {
namespace {

// `digits` followed by `zero_bytes` zero bytes.
uint256 number(const std::string& digits, size_t zero_bytes = 0) {
  return uint256(digits + std::string(2 * zero_bytes, '0'));
}

TEST(CompactBits, StandForTargets) {
  const std::tuple<uint32_t, uint256, uint32_t> rows[] = {
      {0x00123456, number("0"), 0},
      {0x01ff3456, number("ff"), 0x010000ff},
      {0x02123456, number("1234"), 0x02123400},
      {0x02800000, number("8000"), 0x03008000},
      {0x03123456, number("123456"), 0x03123456},
      {0x20ffffff, number("ffffff", 29), 0x2100ffff},
      {0x21123456, number("3456", 30), 0x20345600},
      {0x23123456, number("0"), 0},
  };
  for (const auto& [bits, target, canonical] : rows) {
    EXPECT_EQ(bits_to_target(bits).to_hex(), target.to_hex()) << std::hex << bits;
    EXPECT_EQ(target_to_bits(target), canonical) << target.to_hex();
  }
  for (uint32_t exponent = 3; exponent <= 32; ++exponent) {
    for (const uint32_t mantissa : {0x008000u, 0x00ffffu, 0x010000u, 0x123456u, 0x7fffffu}) {
      const uint32_t bits = exponent << 24 | mantissa;
      EXPECT_EQ(target_to_bits(bits_to_target(bits)), bits) << std::hex << bits;
    }
  }
}

TEST(NextDifficulty, StaysWithinTheRatioAndTheRange) {
  const std::tuple<const char*, uint32_t, uint64_t, uint32_t, uint32_t> rows[] = {
      {"on time", 0x1c100000, 60, 60, 0x1c100000},
      {"just within", 0x1c100000, 65, 60, 0x1c115555},
      {"a tenth slower, the slowest", 0x1c100000, 66, 60, 0x1c119999},
      {"slowest possible", 0x1c100000, ~uint64_t{0}, 60, 0x1c119999},
      {"just within, faster", 0x1c100000, 55, 60, 0x1c0eaaaa},
      {"a tenth faster, the fastest", 0x1c100000, 54, 60, 0x1c0e6666},
      {"an expected second leaves no time", 0x1c100000, 0, 1, 0x1b00ffff},
      {"largest expected time", 0x1c100000, 0, 4'294'967'295u, 0x1c0e8ba2},
      {"easiest stays", 0x1e0fffff, 66, 60, 0x1e0fffff},
      {"easiest, a tenth harder", 0x1e0fffff, 54, 60, 0x1e0e6665},
      {"hardest stays", 0x1b00ffff, 54, 60, 0x1b00ffff},
      {"hardest, a tenth easier", 0x1b00ffff, 66, 60, 0x1b011998},
  };
  for (const auto& [label, bits, span, expected, want] : rows) {
    SCOPED_TRACE(label);
    EXPECT_EQ(calculate_next_difficulty(bits, span, expected), want);
  }
  EXPECT_EQ(runtime_error_of([] { calculate_next_difficulty(0x1c100000, 0, 0); }), "Division by zero");
}

TEST(Work, IsTheExpectedNumberOfHashes) {
  EXPECT_EQ(work_from_bits(0x03000001), number("80", 31));
  EXPECT_EQ(work_from_bits(0x03000002), number(std::string(64, '5')));
  EXPECT_EQ(work_from_bits(0x1d00ffff), uint256(uint64_t{0x100010001}));
  EXPECT_EQ(work_from_bits(0x207fffff), uint256(uint64_t{2}));
  EXPECT_EQ(work_from_bits(0x20ffffff), uint256(uint64_t{1}));
}

TEST(VerifyBits, AcceptsTheRangeAndNearlyCanonicalForms) {
  // The ends of the range, and the least canonical mantissa.
  for (const uint32_t bits : {0x1b00ffffu, 0x1e0fffffu, 0x1c008000u}) {
    EXPECT_TRUE(verify_bits(bits)) << std::hex << bits;
  }
  // Beyond the ends; canonical as 0x1b7fff00, as 0x1d008000, as nothing.
  for (const uint32_t bits : {0x1b00fffeu, 0x1e100000u, 0x1c007fffu, 0x1c800000u, 0x1c000000u}) {
    EXPECT_FALSE(verify_bits(bits)) << std::hex << bits;
  }
}

TEST(Difficulty, IsRelativeToTheEasiestTarget) {
  EXPECT_DOUBLE_EQ(get_difficulty(0x1e0fffff), 1.0);
  EXPECT_DOUBLE_EQ(get_difficulty(0x1b00ffff), 268'439'296.05859464);
  EXPECT_DOUBLE_EQ(get_difficulty(0x207fffff), 1'048'575.0 / 65'536.0 / 8'388'607.0);
  EXPECT_DOUBLE_EQ(get_difficulty(0x00ffffff), 1.0);
  EXPECT_DOUBLE_EQ(get_difficulty(0x03000001), 0x0fffffp272);
}

}  // namespace
}  // namespace norvel::difficulty
