#include "crypto/hex.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

TEST(HexToBytes, ReadsPrefixesAndOddCounts) {
  const struct {
    const char* label;
    const char* text;
    Bytes want;
  } rows[] = {
      {"empty", "", {}},
      {"prefix alone", "0x", {}},
      {"prefix and an odd count", "0xABC", {0x0a, 0xbc}},
      {"upper-case prefix", "0XfF", {0xff}},
      {"one digit", "f", {0x0f}},
      {"zero without a prefix", "0", {0x00}},
      {"x in the last pair of an odd count", "10x", {0x01, 0x00}},
      {"a second prefix is a pair", "0x0x12", {0x00, 0x12}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(hex_to_bytes(row.text), row.want);
  }
}

// Two pairs in front keep the pair under test away from the prefix.
TEST(HexToBytes, AgreesWithTheStandardConversionOnEveryPair) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string pair = {static_cast<char>(first), static_cast<char>(second)};
      std::optional<uint8_t> want;
      std::string want_error = "(none)";
      try {
        want = static_cast<uint8_t>(std::stoul(pair, nullptr, 16));
      } catch (const std::invalid_argument& error) {
        want_error = error.what();
      }
      Bytes got;
      ASSERT_EQ(thrown_by([&] { got = hex_to_bytes("1234" + pair); }), want_error) << first << " " << second;
      if (want) {
        ASSERT_EQ(got, (Bytes{0x12, 0x34, *want})) << first << " " << second;
      }
    }
  }
}

TEST(HexToBytes, ThrowsInvalidArgumentWithoutADigit) {
  for (const char* text : {"zz", "12  ", "0xg1", "12+-"}) {
    EXPECT_THROW(hex_to_bytes(text), std::invalid_argument) << text;
  }
  EXPECT_EQ(thrown_by([] { hex_to_bytes("zz"); }), "stoul");
}

TEST(BytesToHex, WritesWhatIsReadBack) {
  EXPECT_EQ(bytes_to_hex(Bytes{0x0a, 0xbc}), "0abc");
  std::mt19937_64 random(2);
  const Bytes data = random_bytes(random, 5000);
  EXPECT_EQ(hex_to_bytes(bytes_to_hex(data)), data);
}

}  // namespace
}  // namespace norvel::crypto
