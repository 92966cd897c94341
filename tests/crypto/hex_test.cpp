#include "crypto/hex.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

TEST(HexToBytes, ReadsPrefixesAndOddCounts) {
  const struct {
    const char* text;
    Bytes want;
  } rows[] = {
      {"0x", {}}, {"0xABC", {0x0a, 0xbc}}, {"0XfF", {0xff}}, {"10x", {0x01, 0x00}}, {"0x0x12", {0x00, 0x12}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(hex_to_bytes(row.text), row.want) << row.text;
  }
  EXPECT_THROW(hex_to_bytes("zz"), std::invalid_argument);
}

// Two pairs in front keep the pair under test away from the prefix.
TEST(HexToBytes, AgreesWithTheStandardConversionOnEveryPair) {
  for (int value = 0; value < 65536; ++value) {
    const std::string pair = {static_cast<char>(value >> 8), static_cast<char>(value)};
    Bytes want = {0x12, 0x34};
    Bytes got;
    const std::string error = thrown_by([&] { want.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16))); });
    ASSERT_EQ(thrown_by([&] { got = hex_to_bytes("1234" + pair); }), error) << value;
    ASSERT_EQ(got, error == "(none)" ? want : Bytes{}) << value;
  }
}

}  // namespace
}  // namespace norvel::crypto
