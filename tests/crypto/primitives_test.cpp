// Hexadecimal text, digests, key derivation, wiping.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <functional>
#include <limits>
#include <stdexcept>
#include <tuple>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto/kdf.h"
#include "crypto/secure_zero.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

TEST(HexToBytes, ReadsPrefixesAndOddCounts) {
  const std::tuple<const char*, Bytes> rows[] = {
      {"0x", {}}, {"0xABC", {0x0a, 0xbc}}, {"0XfF", {0xff}}, {"10x", {0x01, 0x00}}, {"0x0x12", {0x00, 0x12}},
  };
  for (const auto& [text, want] : rows) {
    EXPECT_EQ(hex_to_bytes(text), want) << text;
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

TEST(Sha256, MatchesPublishedVectors) {
  // FIPS 180-4 example (NIST CSRC, "Example Values", SHA256).
  EXPECT_EQ(bytes_to_hex(sha256(bytes_of("abc")).to_bytes()),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Hash256, HashesTheDigestAgain) {
  std::mt19937_64 random(1);
  for (size_t size = 0; size < 200; ++size) {
    const Bytes data = random_bytes(random, size);
    EXPECT_EQ(hash256(data), sha256(sha256(data).to_bytes())) << size;
  }
}

TEST(Hash256Prefix, HashesThePrefixAndEachEnd) {
  std::mt19937_64 random(2);
  for (const size_t prefix_size : {0u, 1u, 64u, 150u}) {
    const Bytes prefix = random_bytes(random, prefix_size);
    const Hash256Prefix hasher(prefix);
    for (const size_t end_size : {4u, 0u, 100u}) {
      const Bytes end = random_bytes(random, end_size);
      Bytes whole = prefix;
      whole.insert(whole.end(), end.begin(), end.end());
      EXPECT_EQ(hasher.finish(end), hash256(whole)) << prefix_size << " + " << end_size;
    }
  }
}

Bytes ripemd160(ByteView data) {
  Bytes digest(20);
  size_t len = 0;
  EXPECT_EQ(EVP_Q_digest(nullptr, "RIPEMD160", nullptr, data.data(), data.size(), digest.data(), &len), 1);
  return digest;
}

TEST(Hash160, IsRipemd160OfSha256) {
  // RIPEMD-160: Dobbertin, Bosselaers, Preneel, "RIPEMD-160: A Strengthened
  // Version of RIPEMD", appendix B. It confirms the reference used below.
  EXPECT_EQ(bytes_to_hex(ripemd160(bytes_of("abc"))), "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc");
  EXPECT_EQ(hash160(bytes_of("abc")), ripemd160(sha256(bytes_of("abc")).to_bytes()));
}

TEST(Kdf, MatchesRfc7914Sections11And12) {
  EXPECT_EQ(bytes_to_hex(pbkdf2_hmac_sha256(bytes_of("Password"), bytes_of("NaCl"), 80000, 64)),
            "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
            "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d");
  EXPECT_EQ(bytes_to_hex(scrypt_kdf(bytes_of("password"), bytes_of("NaCl"), 1024, 8, 16, 64)),
            "fdbabe1c9d3472007856e7190d01e9fe7c6ad7cbc8237830e77376634b373162"
            "2eaf30d92e22a3886ff109279d9830dac727afb94a83ee6d8360cbdfa2cc0640");
}

TEST(Pbkdf2, StatesWhatItRefuses) {
  const auto error = [](uint32_t iterations, size_t key_len) {
    return thrown_by([&] { EXPECT_EQ(pbkdf2_hmac_sha256({}, {}, iterations, key_len).size(), key_len); });
  };
  EXPECT_EQ(error(0, 0), "pbkdf2_hmac_sha256: iterations must be > 0");
  EXPECT_EQ(error(1, 0), "pbkdf2_hmac_sha256: key_len out of range");
  EXPECT_EQ(error(1, 1), "(none)");
  EXPECT_EQ(error(1, 65), "pbkdf2_hmac_sha256: key_len out of range");
  EXPECT_EQ(error(0x80000000u, 32), "pbkdf2_hmac_sha256: PKCS5_PBKDF2_HMAC failed");
}

TEST(Scrypt, StatesWhatItRefuses) {
  const std::string power = "scrypt_kdf: N must be a power of 2 and >= 2";
  const std::string key = "scrypt_kdf: key_len must be in [1, 64]";
  const std::string failed =
      "scrypt_kdf: EVP_PBE_scrypt failed — ensure OpenSSL >= 1.1 and that N/r/p values are valid";
  const uint32_t most = std::numeric_limits<uint32_t>::max();
  const std::tuple<const char*, uint64_t, uint32_t, uint32_t, size_t, std::string> rows[] = {
      {"N of 1", 1, 1, 1, 32, power},
      {"N above a power", 1025, 1, 1, 32, power},
      {"r of 0", 16, 0, 1, 32, "scrypt_kdf: r must be > 0"},
      {"p of 0", 16, 1, 0, 32, "scrypt_kdf: p must be > 0"},
      {"empty key", 16, 1, 1, 0, key},
      {"key too long", 16, 1, 1, 65, key},
      // p blocks, the N entries and two more within N * r * 256 bytes: p + 2 <= N.
      {"N of 2 never fits", 2, 1, 1, 32, failed},
      {"p just fits, shortest key", 8, 1, 6, 1, "(none)"},
      {"p just too large", 8, 1, 7, 32, failed},
      {"limit far above 2^64", uint64_t{1} << 63, most, most, 32, failed},
  };
  for (const auto& [label, N, r, p, key_len, want] : rows) {
    EXPECT_EQ(thrown_by(std::bind(scrypt_kdf, Bytes(), Bytes(), N, r, p, key_len)), want) << label;
  }
}

TEST(WipeOnExit, WipesTheRangeAlone) {
  std::array<uint8_t, 4> secret = {1, 2, 3, 4};
  { const WipeOnExit wipe({secret.data() + 1, 2}); }
  EXPECT_EQ(secret, (std::array<uint8_t, 4>{1, 0, 0, 4}));
}

}  // namespace
}  // namespace norvel::crypto
