#include "crypto/address.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <algorithm>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

TEST(Base58, MatchesPublishedVectors) {
  // IETF draft-msporny-base58-03, section 5.
  const struct {
    const char* label;
    Bytes bytes;
    const char* text;
  } rows[] = {
      {"short", bytes_of("Hello World!"), "2NEpo7TZRRrLZSi2U"},
      {"long", bytes_of("The quick brown fox jumps over the lazy dog."),
       "USm3fpXnKG5EUBx2ndxBDMPVciP5hGey2Jh4NDv6gmeo1LkMeiKrLJUUBk6Z"},
      {"leading zero bytes", {0x00, 0x00, 0x28, 0x7f, 0xb4, 0xcd}, "11233QC4"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(base58_encode(row.bytes), row.text);
    // The decoder keeps the working number's first byte, here never zero.
    EXPECT_EQ(base58_decode(row.text), row.bytes);
  }
}

TEST(Base58, WritesOneDigitMoreForZeroBytesAlone) {
  for (const size_t count : {0u, 1u, 2u, 40u, 500u}) {
    EXPECT_EQ(base58_encode(Bytes(count, 0)), std::string(count + 1, '1')) << count;
  }
}

TEST(Base58, DecodesAnyNumberOfLeadingOnes) {
  for (const size_t count : {0u, 1u, 40u, 40'000u}) {
    EXPECT_EQ(base58_decode(std::string(count, '1')), Bytes(count + 1, 0)) << count;
    Bytes want(count, 0);
    want.push_back(1);
    EXPECT_EQ(base58_decode(std::string(count, '1') + "2"), want) << count;
  }
}

// By repeated division of a big number, which must not be zero.
std::string base58_by_division(ByteView bytes) {
  std::string text;
  BIGNUM* number = BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr);
  while (!BN_is_zero(number)) {
    text.push_back("123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz"[BN_div_word(number, 58)]);
  }
  BN_free(number);
  for (size_t i = 0; i < bytes.size() && bytes[i] == 0; ++i) {
    text.push_back('1');
  }
  std::reverse(text.begin(), text.end());
  return text;
}

TEST(Base58, AgreesWithDivisionAndReturns) {
  std::mt19937_64 random(3);
  for (int i = 0; i < 300; ++i) {
    Bytes bytes(static_cast<size_t>(i % 4), 0);
    append(bytes, random_bytes(random, 1 + random() % 60));
    bytes.back() = static_cast<uint8_t>(bytes.back() | 1);
    const std::string text = base58_encode(bytes);
    EXPECT_EQ(text, base58_by_division(bytes));
    EXPECT_EQ(base58_decode(text), bytes);
  }
}

TEST(Base58, RefusesEveryCharacterOutsideTheAlphabet) {
  int accepted = 0;
  for (int character = 0; character < 256; ++character) {
    const std::string text = {'2', static_cast<char>(character)};
    const std::string error = thrown_by([&] { base58_decode(text); });
    accepted += error == "(none)";
    EXPECT_TRUE(error == "(none)" || error == "base58_decode: invalid character") << error;
  }
  EXPECT_EQ(accepted, 58);
  for (const char* text : {"0", "O", "I", "l", " ", "2 "}) {
    EXPECT_EQ(thrown_by([&] { base58_decode(text); }), "base58_decode: invalid character") << text;
  }
}

// Worked out with the digests of Python's hashlib; the second is for the
// compressed generator point of secp256k1.
constexpr const char kHashA[] = "010966776006953d5567439e5e39f86a0d273bee";
constexpr const char kAddressA[] = "16UwLL9Risc3QfPqBUvKofHmBQ7wMtjvM";
constexpr const char kKeyB[] = "0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798";
constexpr const char kAddressB[] = "1BgGZ9tcN4rm9KBzDn7KprQz87SZ26SAMH";

TEST(Address, MatchesIndependentExamples) {
  EXPECT_EQ(hash160_to_address(hex_to_bytes(kHashA), 0x00), kAddressA);
  EXPECT_EQ(address_to_hash160(kAddressA), hex_to_bytes(kHashA));
  EXPECT_EQ(pubkey_to_address(hex_to_bytes(kKeyB), 0x00), kAddressB);
  EXPECT_EQ(address_to_hash160(kAddressB), hash160(hex_to_bytes(kKeyB)));
}

TEST(Address, AcceptsAnyVersionByteAndHash) {
  std::mt19937_64 random(4);
  for (int version = 0; version < 256; ++version) {
    const Bytes hash = random_bytes(random, 20);
    EXPECT_EQ(address_to_hash160(hash160_to_address(hash, static_cast<uint8_t>(version))), hash) << version;
  }
  EXPECT_EQ(address_to_hash160(hash160_to_address(Bytes(20, 0), 0)), Bytes(20, 0));
}

TEST(Address, IsEmptyForAHashOfAnotherSize) {
  for (const size_t size : {0u, 19u, 21u, 32u}) {
    EXPECT_EQ(hash160_to_address(Bytes(size, 0x11), 0x00), "") << size;
  }
}

std::string encode_with_checksum(Bytes payload) {
  append(payload, ByteView(hash256(payload).bytes()).first(4));
  return base58_encode(payload);
}

TEST(Address, RefusesMalformedText) {
  std::string last_changed = kAddressA;
  last_changed.back() = last_changed.back() == 'M' ? 'N' : 'M';
  const std::string length = "address_to_hash160: invalid address length";
  const std::string checksum = "address_to_hash160: invalid checksum";
  const std::string character = "base58_decode: invalid character";
  const struct {
    const char* label;
    std::string text;
    std::string error;
  } rows[] = {
      {"as published", kAddressA, "(none)"},
      {"empty", "", length},
      {"24 bytes", encode_with_checksum(Bytes(20, 0x11)), length},
      {"25 bytes", encode_with_checksum(Bytes(21, 0x11)), "(none)"},
      {"26 bytes", encode_with_checksum(Bytes(22, 0x11)), length},
      {"last character changed", last_changed, checksum},
      {"one more leading 1", "1" + std::string(kAddressA), length},
      {"trailing blank", std::string(kAddressA) + " ", character},
      {"64 characters", std::string(64, 'z'), length},
      {"65 characters", std::string(65, 'z'), length},
      {"65 characters, the last one invalid", std::string(64, 'z') + "0", character},
      {"2 MB", std::string(2'000'000, 'z'), length},
      {"2 MB and an invalid character", std::string(2'000'000, 'z') + "0", character},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(thrown_by([&] { address_to_hash160(row.text); }), row.error);
    EXPECT_EQ(validate_address(row.text), row.error == "(none)");
  }
}

TEST(Address, ChecksEachByteOfTheChecksum) {
  const Bytes good = base58_decode(kAddressB);
  for (size_t i = 1; i < good.size(); ++i) {
    Bytes bad = good;
    bad[i] ^= 0x01;
    EXPECT_EQ(thrown_by([&] { address_to_hash160(base58_encode(bad)); }), "address_to_hash160: invalid checksum") << i;
  }
}

}  // namespace
}  // namespace norvel::crypto
