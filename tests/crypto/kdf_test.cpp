#include "crypto/kdf.h"

#include <gtest/gtest.h>

#include <limits>

#include "crypto/hex.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

TEST(Pbkdf2, MatchesRfc7914Section11) {
  EXPECT_EQ(bytes_to_hex(pbkdf2_hmac_sha256(bytes_of("passwd"), bytes_of("salt"), 1, 64)),
            "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
            "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783");
  EXPECT_EQ(bytes_to_hex(pbkdf2_hmac_sha256(bytes_of("Password"), bytes_of("NaCl"), 80000, 64)),
            "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
            "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d");
}

TEST(Pbkdf2, StatesWhatItRefuses) {
  const struct {
    const char* label;
    uint32_t iterations;
    size_t key_len;
    std::string error;
  } rows[] = {
      {"least", 1, 1, "(none)"},
      {"longest key", 1, 64, "(none)"},
      {"no iteration", 0, 32, "pbkdf2_hmac_sha256: iterations must be > 0"},
      {"no iteration and no key", 0, 0, "pbkdf2_hmac_sha256: iterations must be > 0"},
      {"empty key", 1, 0, "pbkdf2_hmac_sha256: key_len out of range"},
      {"key too long", 1, 65, "pbkdf2_hmac_sha256: key_len out of range"},
      {"more iterations than OpenSSL counts", 0x80000000u, 32, "pbkdf2_hmac_sha256: PKCS5_PBKDF2_HMAC failed"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Bytes key;
    EXPECT_EQ(thrown_by([&] { key = pbkdf2_hmac_sha256({}, {}, row.iterations, row.key_len); }), row.error);
    EXPECT_EQ(key.size(), row.error == "(none)" ? row.key_len : 0);
  }
}

TEST(Scrypt, MatchesRfc7914Section12) {
  EXPECT_EQ(bytes_to_hex(scrypt_kdf({}, {}, 16, 1, 1, 64)),
            "77d6576238657b203b19ca42c18a0497f16b4844e3074ae8dfdffa3fede21442"
            "fcd0069ded0948f8326a753a0fc81f17e8d3e0fb2e0d3628cf35e20c38d18906");
  EXPECT_EQ(bytes_to_hex(scrypt_kdf(bytes_of("password"), bytes_of("NaCl"), 1024, 8, 16, 64)),
            "fdbabe1c9d3472007856e7190d01e9fe7c6ad7cbc8237830e77376634b373162"
            "2eaf30d92e22a3886ff109279d9830dac727afb94a83ee6d8360cbdfa2cc0640");
  EXPECT_EQ(bytes_to_hex(scrypt_kdf(bytes_of("pleaseletmein"), bytes_of("SodiumChloride"), 16384, 8, 1, 64)),
            "7023bdcb3afd7348461c06cd81fd38ebfda8fbba904f8e3ea9b543f6545da1f2"
            "d5432955613f0fcf62d49705242a9af9e61e85dc0d651e40dfcf017b45575887");
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
      {"N of 0", 0, 1, 1, 32, power},
      {"N of 1", 1, 1, 1, 32, power},
      {"N of 3", 3, 1, 1, 32, power},
      {"N above a power", 1025, 1, 1, 32, power},
      {"r of 0", 16, 0, 1, 32, "scrypt_kdf: r must be > 0"},
      {"p of 0", 16, 1, 0, 32, "scrypt_kdf: p must be > 0"},
      {"empty key", 16, 1, 1, 0, key},
      {"shortest key", 16, 1, 1, 1, "(none)"},
      {"key too long", 16, 1, 1, 65, key},
      // p blocks, the N entries and two more within N * r * 256 bytes: p + 2 <= N.
      {"N of 2 never fits", 2, 1, 1, 32, failed},
      {"p just fits", 8, 1, 6, 32, "(none)"},
      {"p just too large", 8, 1, 7, 32, failed},
      {"limit of 2^64", uint64_t{1} << 56, 1, 1, 32, failed},
      {"limit far above 2^64", uint64_t{1} << 63, most, most, 32, failed},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(thrown_by([&] { scrypt_kdf({}, {}, row.N, row.r, row.p, row.key_len); }), row.error);
  }
}

}  // namespace
}  // namespace norvel::crypto
