#include "crypto/hash.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "crypto/hex.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

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

}  // namespace
}  // namespace norvel::crypto
