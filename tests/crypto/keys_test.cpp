#include "crypto/keys.h"

#include <gtest/gtest.h>

#include <set>

#include "crypto/hex.h"
#include "crypto_testing.h"
#include "reference_curve.h"

namespace norvel::crypto {
namespace {

constexpr const char kOrder[] = "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141";

TEST(DerivePublicKey, MatchesSec2) {
  const struct {
    const char* label;
    const char* private_key;
    const char* public_key;
  } rows[] = {
      // SEC 2 version 2, section 2.4.1, for the generator; its double and its negative by libsecp256k1.
      {"1", "0000000000000000000000000000000000000000000000000000000000000001",
       "0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798"},
      {"2", "0000000000000000000000000000000000000000000000000000000000000002",
       "02c6047f9441ed7d6d3045406e95c07cd85c778e4b8cef3ca7abac09b95c709ee5"},
      {"n - 1", "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364140",
       "0379be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(bytes_to_hex(derive_public_key(hex_to_bytes(row.private_key))), row.public_key);
  }
}

TEST(DerivePublicKey, StatesWhatItRefuses) {
  const std::string size = "derive_public_key: invalid private key size";
  const std::string range = "derive_public_key: private key out of range";
  const struct {
    const char* label;
    Bytes private_key;
    std::string error;
  } rows[] = {
      {"empty", {}, size},           {"31 bytes", Bytes(31, 1), size},   {"33 bytes", Bytes(33, 1), size},
      {"zero", Bytes(32, 0), range}, {"n", hex_to_bytes(kOrder), range}, {"2^256 - 1", Bytes(32, 0xff), range},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(thrown_by([&] { derive_public_key(row.private_key); }), row.error);
  }
}

TEST(GenerateKeypair, GivesNewPairsOfTheCurve) {
  std::set<Bytes> seen;
  for (int i = 0; i < 50; ++i) {
    const auto [private_key, public_key] = generate_keypair();
    ASSERT_EQ(private_key.size(), kPrivateKeyBytes);
    EXPECT_EQ(public_key, reference::public_key(private_key));
    EXPECT_TRUE(seen.insert(private_key).second);
  }
}

}  // namespace
}  // namespace norvel::crypto
