#include "core/uint256.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

#include "support/ledger_samples.h"

namespace norvel {
namespace {

const uint256 kZero;
const uint256 kOne(uint64_t{1});
const uint256 kAllOnes(std::string(64, 'f'));

TEST(Uint256Text, ReadsPairsOfDigitsFromTheFront) {
  const std::string zeros(64, '0');
  const std::string full = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
  const struct {
    const char* label;
    std::string text;
    std::string want;  // low digits; "throws": std::invalid_argument
  } rows[] = {
      {"nothing", "", ""},
      {"a prefix alone", "0x", ""},
      {"one digit", "1", "1"},
      {"a prefix and one digit", "0x1", "1"},
      {"upper-case digits", "ABCDEF", "abcdef"},
      {"64 digits", full, full},
      {"63 digits", full.substr(1), full},
      {"the 65th is ignored", full + "7", full},
      {"a prefix, 64 digits, no digits", "0x" + full + "zz", full},
      {"upper-case prefix", "0X1", "throws"},
      {"a second prefix is the pair 0x", "0x0x12", "12"},
      {"no digits behind 62", zeros.substr(2) + "g0", "throws"},
      {"only the first of a pair is a digit", "5g", "5"},
      {"sign and digit", "+5", "5"},
      {"minus one, cut to 8 bits", "-1", "ff"},
      {"blank and digit", " 7", "7"},
      {"a sign behind the padding", "+", ""},
      {"two signs", "++", "throws"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    if (row.want == "throws") {
      EXPECT_THROW(uint256::from_hex(row.text), std::invalid_argument);
    } else {
      EXPECT_EQ(uint256(row.text).to_hex(), zeros.substr(row.want.size()) + row.want);
    }
  }
}

TEST(Uint256Bytes, ByteZeroIsTheLeastSignificant) {
  Bytes counted;
  for (uint8_t i = 1; i <= 33; ++i) {
    counted.push_back(i);
  }
  EXPECT_EQ(uint256(counted).to_hex(), "201f1e1d1c1b1a191817161514131211100f0e0d0c0b0a090807060504030201");
  EXPECT_EQ(uint256(counted).low64(), 0x0807060504030201u);
  EXPECT_EQ(uint256(Bytes{0xab}), uint256("ab"));
  EXPECT_EQ(uint256(uint64_t{0x0102030405060708}), uint256("0102030405060708"));

  size_t offset = 1;
  EXPECT_EQ(uint256::deserialize(counted, offset).to_bytes(), Bytes(counted.begin() + 1, counted.end()));
  EXPECT_EQ(offset, 33u);
  for (const size_t start : {size_t{2}, size_t{33}, size_t{34}, std::numeric_limits<size_t>::max()}) {
    offset = start;
    EXPECT_EQ(runtime_error_of([&] { uint256::deserialize(counted, offset); }),
              "Not enough bytes to deserialize uint256");
    EXPECT_EQ(offset, start);
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

// Numbers of all lengths with runs of zero and of one bits.
uint256 random_number(std::mt19937_64& random) {
  Bytes bytes = random_bytes(random, random() % 33);
  for (uint8_t& byte : bytes) {
    const auto form = random() % 4;
    byte = form == 0 ? 0x00 : form == 1 ? 0xff : byte;
  }
  return uint256(bytes);
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
    const bool less = a.to_hex() < b.to_hex();
    EXPECT_EQ(a < b, less);
    EXPECT_EQ(a >= b, !less);
    EXPECT_EQ(b > a, less);
    EXPECT_EQ(b <= a, !less);

    const uint64_t factor = 1 + (random() % (uint64_t{1} << 56) >> random() % 56);
    EXPECT_EQ(a * factor, model_multiply(a, uint256(factor)));
    EXPECT_EQ(a / factor, a / uint256(factor));
    if (!b.is_zero()) {
      const uint256 quotient = a / b;
      EXPECT_LT(a - model_multiply(quotient, b), b);
      EXPECT_LE(quotient.highest_bit() + b.highest_bit(), std::max(a.highest_bit(), b.highest_bit() - 1));
    }
  }
}

TEST(Uint256Arithmetic, ShiftsMoveEveryBitAndDropTheRest) {
  std::mt19937_64 random(2);
  for (const unsigned n : {0u, 1u, 7u, 8u, 9u, 63u, 64u, 100u, 247u, 248u, 255u, 256u, 257u, 4'294'967'295u}) {
    const uint256 number = random_uint256(random);
    const int distance = static_cast<int>(std::min(n, 256u));
    for (int i = 0; i < 256; ++i) {
      ASSERT_EQ(bit(number << n, i), bit(number, i - distance)) << n << ", " << i;
      ASSERT_EQ(bit(number >> n, i), bit(number, i + distance)) << n << ", " << i;
    }
  }
}

TEST(Uint256Arithmetic, Edges) {
  EXPECT_EQ(kZero - kOne, kAllOnes);
  EXPECT_EQ(kAllOnes + kOne, kZero);
  EXPECT_EQ(kOne / kAllOnes, kZero);
  EXPECT_EQ(kAllOnes / kAllOnes, kOne);
  EXPECT_EQ(runtime_error_of([] { (void)(kOne / uint64_t{0}); }), "Division by zero");
  EXPECT_EQ(runtime_error_of([] { (void)(kZero / kZero); }), "Division by zero");
  EXPECT_EQ(kZero.highest_bit(), -1);
  EXPECT_EQ(kOne.highest_bit(), 0);
  EXPECT_EQ((kOne << 255).highest_bit(), 255);
}

// 2^56 is the last factor that is exact. Worked out step by step in 64-bit
// arithmetic by another program.
TEST(Uint256Arithmetic, SixtyFourBitOperandsWrapWithinAStep) {
  const struct {
    uint64_t operand;
    const char* product;
    const char* quotient;
  } rows[] = {
      {uint64_t{1} << 56, "ffffffffffffffffffffffffffffffffffffffffffffffffff00000000000000",
       "00000000000000ffffffffffffffffffffffffffffffffffffffffffffffffff"},
      {(uint64_t{1} << 56) + 1, "fefffffffffffffffefffffffffffffffefffffffffffffffeffffffffffffff",
       "00000000000000ffffffffffffff00000000000000ffffffffffffff00000000"},
      {uint64_t{1} << 63, "8080808080808080808080808080808080808080808080808000000000000000",
       "0000000000000001010101010101010101010101010101010101010101010101"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ((kAllOnes * row.operand).to_hex(), row.product);
    EXPECT_EQ((kAllOnes / row.operand).to_hex(), row.quotient);
  }
}

TEST(Uint256Double, RoundsOnceAByteFromTheTop) {
  EXPECT_EQ(uint256("1fffffffffffff").to_double(), 0x1.fffffffffffffp52);
  EXPECT_EQ(uint256("20000000000003").to_double(), 0x1.0000000000002p53);
  // A tie, rounded to even before the last byte is seen; one conversion of the whole would round up.
  EXPECT_EQ(uint256("20000000000001ff").to_double(), 0x1p61);
  EXPECT_EQ(kAllOnes.to_double(), 0x1p256);
}

}  // namespace
}  // namespace norvel
