#include "consensus/difficulty.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "support/ledger_samples.h"

namespace norvel::difficulty {
namespace {

// `digits` followed by `zero_bytes` zero bytes.
uint256 number(const std::string& digits, size_t zero_bytes = 0) {
  return uint256(digits + std::string(2 * zero_bytes, '0'));
}

TEST(CompactBits, TurnIntoTargets) {
  const struct {
    uint32_t bits;
    uint256 target;
  } rows[] = {
      {0x00123456, number("0")},          {0x01123456, number("12")},         {0x02123456, number("1234")},
      {0x03123456, number("123456")},     {0x04123456, number("123456", 1)},  {0x03ffffff, number("ffffff")},
      {0x1b00ffff, number("ffff", 24)},   {0x1d00ffff, number("ffff", 26)},   {0x1e0fffff, number("0fffff", 27)},
      {0x207fffff, number("7fffff", 29)}, {0x20ffffff, number("ffffff", 29)}, {0x21123456, number("3456", 30)},
      {0x22123456, number("56", 31)},     {0x23123456, number("0")},          {0xff123456, number("0")},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(bits_to_target(row.bits).to_hex(), row.target.to_hex()) << std::hex << row.bits;
  }
}

TEST(CompactBits, ComeFromTargets) {
  const struct {
    uint256 target;
    uint32_t bits;
  } rows[] = {
      {number("0"), 0},
      {number("01"), 0x01000001},
      {number("80"), 0x01000080},
      {number("ff"), 0x010000ff},
      {number("0100"), 0x02010000},
      {number("7fff"), 0x027fff00},
      {number("8000"), 0x03008000},
      {number("123456"), 0x03123456},
      {number("800000"), 0x04008000},
      {number("12345678"), 0x04123456},
      {number("7fffff", 29), 0x207fffff},
      {number("800000", 29), 0x21008000},
      {~uint256(), 0x2100ffff},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(target_to_bits(row.target), row.bits) << row.target.to_hex();
  }
  for (uint32_t exponent = 3; exponent <= 32; ++exponent) {
    for (const uint32_t mantissa : {0x008000u, 0x00ffffu, 0x010000u, 0x123456u, 0x7fffffu}) {
      const uint32_t bits = exponent << 24 | mantissa;
      EXPECT_EQ(target_to_bits(bits_to_target(bits)), bits) << std::hex << bits;
    }
  }
}

TEST(NextDifficulty, StaysWithinTheRatioAndTheRange) {
  const struct {
    const char* label;
    uint32_t bits;
    uint64_t span;
    uint32_t expected;
    uint32_t want;
  } rows[] = {
      {"on time", 0x1c100000, 60, 60, 0x1c100000},
      {"a tenth slower, the slowest", 0x1c100000, 66, 60, 0x1c119999},
      {"slower is cut", 0x1c100000, 67, 60, 0x1c119999},
      {"slowest possible", 0x1c100000, std::numeric_limits<uint64_t>::max(), 60, 0x1c119999},
      {"just within", 0x1c100000, 65, 60, 0x1c115555},
      {"a tenth faster, the fastest", 0x1c100000, 54, 60, 0x1c0e6666},
      {"faster is cut", 0x1c100000, 53, 60, 0x1c0e6666},
      {"no time at all", 0x1c100000, 0, 60, 0x1c0e6666},
      {"just within, faster", 0x1c100000, 55, 60, 0x1c0eaaaa},
      {"an expected second leaves no time", 0x1c100000, 0, 1, 0x1b00ffff},
      {"largest expected time", 0x1c100000, 0, 4'294'967'295u, 0x1c0e8ba2},
      {"easiest stays", 0x1e0fffff, 66, 60, 0x1e0fffff},
      {"easier than allowed comes down", 0x207fffff, 60, 60, 0x1e0fffff},
      {"easiest, a tenth harder", 0x1e0fffff, 54, 60, 0x1e0e6665},
      {"hardest stays", 0x1b00ffff, 54, 60, 0x1b00ffff},
      {"hardest, a tenth easier", 0x1b00ffff, 66, 60, 0x1b011998},
      {"harder than allowed comes up", 0x03123456, 60, 60, 0x1b00ffff},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(calculate_next_difficulty(row.bits, row.span, row.expected), row.want);
  }
  EXPECT_EQ(runtime_error_of([] { calculate_next_difficulty(0x1c100000, 0, 0); }), "Division by zero");
}

TEST(Work, IsTheExpectedNumberOfHashes) {
  // For small targets, long division of 2^256 by hand: the quotient's 64-bit
  // words from the remainders of the words before.
  __extension__ using Wide = unsigned __int128;
  for (const uint64_t target : {uint64_t{0}, uint64_t{1}, uint64_t{2}, uint64_t{0x1234}, uint64_t{0xffffff}}) {
    const uint64_t divisor = target + 1;
    uint256 want;
    Wide rest = 1;
    for (int word = 0; word < 4; ++word) {
      rest <<= 64;
      want = (want << 64) + uint256(static_cast<uint64_t>(rest / divisor));
      rest %= divisor;
    }
    EXPECT_EQ(work_from_bits(0x03000000 | static_cast<uint32_t>(target)).to_hex(), want.to_hex()) << target;
  }
  EXPECT_EQ(work_from_bits(0x1d00ffff), uint256(uint64_t{0x100010001}));
  EXPECT_EQ(work_from_bits(0x1e0fffff), uint256(uint64_t{0x100001}));
  EXPECT_EQ(work_from_bits(0x207fffff), uint256(uint64_t{2}));
  EXPECT_EQ(work_from_bits(0x20ffffff), uint256(uint64_t{1}));
}

TEST(VerifyBits, AcceptsTheRangeAndNearlyCanonicalForms) {
  const struct {
    uint32_t bits;
    bool want;
  } rows[] = {
      {0x1b00fffe, false}, {0x1b00ffff, true},  {0x1b010000, true},  {0x1c7fffff, true},
      {0x1e0fffff, true},  {0x1e100000, false}, {0x207fffff, false}, {0, false},
      {0xffffffff, false}, {0x1c008000, true},  // the least canonical mantissa
      {0x1c007fff, false},                      // 0x1b7fff00
      {0x1c800000, false},                      // 0x1d008000
      {0x1cffffff, false},                      // 0x1d00ffff
      {0x1c000000, false},                      // target zero
  };
  for (const auto& row : rows) {
    EXPECT_EQ(verify_bits(row.bits), row.want) << std::hex << row.bits;
  }
}

TEST(Difficulty, IsRelativeToTheEasiestTarget) {
  const struct {
    uint32_t bits;
    double want;
  } rows[] = {
      {0x1e0fffff, 1.0},
      {0x1b00ffff, 268'439'296.05859464},
      {0x1d0fffff, 256.0},
      {0x1e07ffff, 1'048'575.0 / 524'287.0},
      {0x207fffff, 1'048'575.0 / 65'536.0 / 8'388'607.0},
      {0x00ffffff, 1.0},
      {0xff123456, 1.0},
      // Fewer than eight bytes are not filled up before they are scaled.
      {0x03000001, 0x0fffffp272},
  };
  for (const auto& row : rows) {
    EXPECT_DOUBLE_EQ(get_difficulty(row.bits), row.want) << std::hex << row.bits;
  }
}

}  // namespace
}  // namespace norvel::difficulty
