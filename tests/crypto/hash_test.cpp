#include "crypto/hash.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <thread>
#include <vector>

#include "crypto/hex.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

TEST(Sha256, MatchesPublishedVectors) {
  const struct {
    const char* label;
    std::string message;
    const char* digest;
  } rows[] = {
      // FIPS 180-4 examples (NIST CSRC, "Example Values", SHA256).
      {"one block", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"two blocks", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      // NIST CAVP, SHA256ShortMsg.rsp, Len = 0 and Len = 8.
      {"nothing", "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"one byte", "\xd3", "28969cdfa74a12c82f3bad960b0b000aca2ac329deea5c2328ebc6f2ba9802c1"},
      // RFC 6234, section 8.5, TEST3.
      {"a million a", std::string(1'000'000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(bytes_to_hex(sha256(bytes_of(row.message)).to_bytes()), row.digest);
  }
}

TEST(Sha256, PrintsItsDigestReversed) {
  EXPECT_EQ(sha256(bytes_of("abc")).to_hex(), "ad1500f261ff10b49c7a1796a36103b02322ae5dde404141eacf018fbf1678ba");
}

TEST(Hash256, HashesTheDigestAgain) {
  EXPECT_EQ(bytes_to_hex(hash256({}).to_bytes()), "5df6e0e2761359d30a8275058e299fcc0381534545f55cf43e41983f5d4c9456");
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
  // Version of RIPEMD", appendix B. They confirm the reference used below.
  const struct {
    const char* message;
    const char* digest;
  } vectors[] = {
      {"", "9c1185a5c5e9fc54612808977ee8f548b2258d31"},
      {"abc", "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc"},
      {"message digest", "5d0689ef49d2fae572b881b123a85ffa21595f36"},
      {"abcdefghijklmnopqrstuvwxyz", "f71c27109c692c1b56bbdceb5b9d2865b3708dbc"},
  };
  for (const auto& row : vectors) {
    EXPECT_EQ(bytes_to_hex(ripemd160(bytes_of(row.message))), row.digest);
    EXPECT_EQ(hash160(bytes_of(row.message)), ripemd160(sha256(bytes_of(row.message)).to_bytes()));
  }
  // By libgcrypt.
  EXPECT_EQ(bytes_to_hex(hash160(hex_to_bytes("0279be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798"))),
            "751e76e8199196d454941c45d1b3a323f1433bd6");
}

TEST(Hashes, DoNotDisturbEachOtherAcrossThreads) {
  const Bytes data(84, 0x5a);
  const uint256 want_hash256 = hash256(data);
  const Bytes want_hash160 = hash160(data);
  std::vector<std::thread> threads;
  std::array<int, 4> wrong{};
  for (int& count : wrong) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        count += hash256(data) != want_hash256 || hash160(data) != want_hash160;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, (std::array<int, 4>{}));
}

}  // namespace
}  // namespace norvel::crypto
