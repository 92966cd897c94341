#include "core/uint256.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/ledger_samples.h"

namespace norvel {
namespace {

const uint256 kZero;
const uint256 kOne(uint64_t{1});
const uint256 kAllOnes(std::string(64, 'f'));

TEST(Uint256Text, ReadsPairsOfDigitsFromTheFront) {
  const std::string full = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
  const std::pair<std::string, std::string> rows[] = {
      {"1", "1"},   {full + "7", full}, {"0x" + full + "zz", full}, {"0x0x12", "12"}, {"5g", "5"},
      {"-1", "ff"}, {"+", ""},
  };
  for (const auto& [text, want] : rows) {
    EXPECT_EQ(uint256(text).to_hex(), std::string(64 - want.size(), '0') + want) << text;
  }
  EXPECT_THROW(uint256("0X1"), std::invalid_argument);
  EXPECT_THROW(uint256("++"), std::invalid_argument);
}

TEST(Uint256Bytes, ByteZeroIsTheLeastSignificant) {
  Bytes counted;
  for (uint8_t i = 1; i <= 33; ++i) {
    counted.push_back(i);
  }
  EXPECT_EQ(uint256(counted).to_hex(), "201f1e1d1c1b1a191817161514131211100f0e0d0c0b0a090807060504030201");
  EXPECT_EQ(uint256(counted).low64(), 0x0807060504030201u);
  size_t offset = 1;
  EXPECT_EQ(uint256::deserialize(counted, offset).to_bytes(), Bytes(counted.begin() + 1, counted.end()));
  EXPECT_EQ(offset, 33u);
  for (const size_t start : {size_t{2}, ~size_t{0}}) {
    offset = start;
    EXPECT_TRUE(runtime_error_of([&] { uint256::deserialize(counted, offset); }));
  }
}

bool bit(const uint256& number, int at) {
  return at >= 0 && at < 256 && (number.bytes()[static_cast<size_t>(at) / 8] >> (at % 8) & 1) != 0;
}

// The model: schoolbook addition and multiplication on single bits.
uint256 model_add(const uint256& a, const uint256& b) {
  uint256 sum;
  int carry = 0;
  for (int i = 0; i < 256; ++i) {
    carry += bit(a, i) + bit(b, i);
    sum.bytes()[static_cast<size_t>(i) / 8] |= static_cast<uint8_t>((carry & 1) << (i % 8));
    carry /= 2;
  }
  return sum;
}

uint256 model_multiply(const uint256& a, const uint256& b) {
  uint256 product;
  for (int i = 0; i < 256; ++i) {
    if (bit(b, i)) {
      product = model_add(product, a << static_cast<unsigned>(i));
    }
  }
  return product;
}

// Numbers of all lengths, half of them with long runs of one bits.
uint256 random_number(std::mt19937_64& random) {
  const uint256 number = random_uint256(random) >> static_cast<unsigned>(random() % 257);
  return random() % 2 == 0 ? number : (kOne << static_cast<unsigned>(random() % 257)) - number;
}

TEST(Uint256Arithmetic, AgreesWithAModelOnBits) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 1'000; ++i) {
    const uint256 a = random_number(random);
    const uint256 b = random_number(random);
    SCOPED_TRACE(a.to_hex() + " and " + b.to_hex());
    EXPECT_EQ(a + b, model_add(a, b));
    EXPECT_EQ(model_add(a - b, b), a);
    EXPECT_EQ(model_add(a, ~a), kAllOnes);
    EXPECT_TRUE((a <=> b) == (a.to_hex() <=> b.to_hex()));
    const uint64_t factor = 1 + (random() % (uint64_t{1} << 56) >> random() % 56);
    EXPECT_EQ(a * factor, model_multiply(a, uint256(factor)));
    EXPECT_EQ(a / factor, a / uint256(factor));
    if (!b.is_zero()) {
      const uint256 quotient = a / b;
      EXPECT_LT(a - model_multiply(quotient, b), b);
      EXPECT_LE(quotient.highest_bit() + b.highest_bit(), std::max(a.highest_bit(), b.highest_bit() - 1));
    }
  }
  for (const unsigned n : {0u, 1u, 7u, 8u, 9u, 64u, 100u, 255u, 256u, 4'294'967'295u}) {
    const uint256 number = random_uint256(random);
    const int distance = static_cast<int>(std::min(n, 256u));
    for (int i = 0; i < 256; ++i) {
      ASSERT_EQ(bit(number << n, i), bit(number, i - distance)) << n << ", " << i;
      ASSERT_EQ(bit(number >> n, i), bit(number, i + distance)) << n << ", " << i;
    }
  }
}

TEST(Uint256Arithmetic, Edges) {
  EXPECT_EQ(runtime_error_of([] { (void)(kOne / uint64_t{0}); }), "Division by zero");
  EXPECT_EQ(runtime_error_of([] { (void)(kZero / kZero); }), "Division by zero");
  EXPECT_EQ(kZero.highest_bit(), -1);
  EXPECT_EQ((kOne << 255).highest_bit(), 255);
  // Beyond 2^56 each step wraps; worked out in 64-bit arithmetic by another program.
  const uint64_t operand = (uint64_t{1} << 56) + 1;
  EXPECT_EQ((kAllOnes * operand).to_hex(), "fefffffffffffffffefffffffffffffffefffffffffffffffeffffffffffffff");
  EXPECT_EQ((kAllOnes / operand).to_hex(), "00000000000000ffffffffffffff00000000000000ffffffffffffff00000000");
}

TEST(Uint256Double, RoundsOnceAByteFromTheTop) {
  EXPECT_EQ(uint256("20000000000003").to_double(), 0x1.0000000000002p53);
  // A tie, rounded to even before the last byte is seen; one conversion of the whole would round up.
  EXPECT_EQ(uint256("20000000000001ff").to_double(), 0x1p61);
  EXPECT_EQ(kAllOnes.to_double(), 0x1p256);
}

}  // namespace
}  // namespace norvel
