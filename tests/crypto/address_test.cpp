#include "crypto/address.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

TEST(Base58, MatchesPublishedVectors) {
  // IETF draft-msporny-base58-03, section 5.
  const Bytes pangram = bytes_of("The quick brown fox jumps over the lazy dog.");
  const char* const text = "USm3fpXnKG5EUBx2ndxBDMPVciP5hGey2Jh4NDv6gmeo1LkMeiKrLJUUBk6Z";
  EXPECT_EQ(base58_encode(pangram), text);
  EXPECT_EQ(base58_decode(text), pangram);
  EXPECT_EQ(base58_encode(Bytes{0x00, 0x00, 0x28, 0x7f, 0xb4, 0xcd}), "11233QC4");
}

TEST(Base58, GivesZerosOneDigitMore) {
  for (const size_t count : {0u, 1u, 40u, 40'000u}) {
    const std::string ones(count, '1');
    EXPECT_EQ(base58_encode(Bytes(count, 0)), ones + "1") << count;
    EXPECT_EQ(base58_decode(ones), Bytes(count + 1, 0)) << count;
    Bytes want(count, 0);
    want.push_back(1);
    EXPECT_EQ(base58_decode(ones + "2"), want) << count;
  }
}

TEST(Base58, ReadsItsAlphabetAndNothingElse) {
  const std::string alphabet = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
  for (int character = 0; character < 256; ++character) {
    const std::string text = {'2', static_cast<char>(character)};
    const size_t digit = alphabet.find(text[1]);
    const bool known = digit != std::string::npos;
    Bytes bytes;
    EXPECT_EQ(thrown_by([&] { bytes = base58_decode(text); }), known ? "(none)" : "base58_decode: invalid character");
    EXPECT_EQ(bytes, known ? Bytes{static_cast<uint8_t>(58 + digit)} : Bytes{}) << character;
  }
}

// By Python's hashlib, for the compressed generator point of secp256k1.
constexpr const char kKey[] = "0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798";
constexpr const char kAddress[] = "1BgGZ9tcN4rm9KBzDn7KprQz87SZ26SAMH";

TEST(Address, HoldsTheHashUnderAnyVersionByte) {
  EXPECT_EQ(pubkey_to_address(hex_to_bytes(kKey), 0x00), kAddress);
  EXPECT_EQ(address_to_hash160(kAddress), hash160(hex_to_bytes(kKey)));
  std::mt19937_64 random(4);
  for (int version = 0; version < 256; ++version) {
    const Bytes hash = random_bytes(random, 20);
    EXPECT_EQ(address_to_hash160(hash160_to_address(hash, static_cast<uint8_t>(version))), hash) << version;
  }
  EXPECT_EQ(hash160_to_address(Bytes(19, 0x11), 0x00), "");
  EXPECT_EQ(hash160_to_address(Bytes(21, 0x11), 0x00), "");
}

std::string encode_with_checksum(Bytes payload) {
  append(payload, ByteView(hash256(payload).bytes()).first(4));
  return base58_encode(payload);
}

TEST(Address, RefusesMalformedText) {
  const std::string length = "address_to_hash160: invalid address length";
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"empty", "", length},
      {"24 bytes", encode_with_checksum(Bytes(20, 0x11)), length},
      {"25 bytes", encode_with_checksum(Bytes(21, 0x11)), "(none)"},
      {"26 bytes", encode_with_checksum(Bytes(22, 0x11)), length},
      {"2 MB", std::string(2'000'000, 'z'), length},
      {"2 MB and an invalid character", std::string(2'000'000, 'z') + "0", "base58_decode: invalid character"},
  };
  for (const auto& [label, text, error] : rows) {
    EXPECT_EQ(thrown_by(std::bind(address_to_hash160, text)), error) << label;
    EXPECT_EQ(validate_address(text), error == "(none)") << label;
  }
  const Bytes good = base58_decode(kAddress);
  for (size_t i = 0; i < good.size(); ++i) {
    Bytes bad = good;
    bad[i] ^= 0x01;
    EXPECT_EQ(thrown_by([&] { address_to_hash160(base58_encode(bad)); }), "address_to_hash160: invalid checksum") << i;
  }
}

}  // namespace
}  // namespace norvel::crypto
