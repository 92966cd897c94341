#include "crypto/kdf.h"

#include <gtest/gtest.h>

#include <limits>

#include "crypto/hex.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

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
  const struct {
    const char* label;
    uint64_t N;
    uint32_t r, p;
    size_t key_len;
    std::string error;
  } rows[] = {
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
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(thrown_by([&] { scrypt_kdf({}, {}, row.N, row.r, row.p, row.key_len); }), row.error);
  }
}

}  // namespace
}  // namespace norvel::crypto
