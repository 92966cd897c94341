#include "crypto/signature.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <atomic>
#include <set>
#include <thread>
#include <tuple>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto/keys.h"
#include "crypto_testing.h"
#include "reference_curve.h"

namespace norvel::crypto {
namespace {

const Bytes kOrder = hex_to_bytes("fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141");

TEST(DerivePublicKey, MatchesSec2) {
  // SEC 2 version 2, section 2.4.1: the generator, and its negative for n - 1.
  const std::string generator_x = "79be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798";
  Bytes last = kOrder;
  last.back() -= 1;
  EXPECT_EQ(bytes_to_hex(derive_public_key(join({Bytes(31, 0), {1}}))), "02" + generator_x);
  EXPECT_EQ(bytes_to_hex(derive_public_key(last)), "03" + generator_x);
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

TEST(PrivateKey, IsRefusedOutsideItsRange) {
  for (const Bytes& key : {Bytes(31, 1), Bytes(33, 1), Bytes(32, 0), kOrder}) {
    const bool sized = key.size() == kPrivateKeyBytes;
    EXPECT_EQ(thrown_by([&] { derive_public_key(key); }),
              sized ? "derive_public_key: private key out of range" : "derive_public_key: invalid private key size");
    EXPECT_EQ(thrown_by([&] { sign_message(Bytes(32, 1), key); }),
              sized ? "sign_message_deterministic: failed to set private key"
                    : "sign_message_deterministic: invalid private key size");
  }
}

TEST(Signature, EqualsTheReferenceForAThousandKeysAndMessages) {
  std::mt19937_64 random(6979);
  for (size_t i = 0; i < 1000; ++i) {
    const Bytes private_key = random_bytes(random, 32);
    const Bytes message = random_bytes(random, 32);
    const Bytes public_key = reference::public_key(private_key);
    ASSERT_EQ(derive_public_key(private_key), public_key) << i;
    const Bytes signature = sign_message_deterministic(message, private_key);
    ASSERT_EQ(bytes_to_hex(signature), bytes_to_hex(reference::sign(message, private_key))) << i;
    ASSERT_TRUE(reference::verify(message, signature, public_key)) << i;
    ASSERT_TRUE(verify_signature(message, reference::sign(message, private_key), public_key)) << i;
    Bytes other = message;
    other[i % 32] ^= 0x80;
    ASSERT_FALSE(verify_signature(other, signature, public_key)) << i;
  }
}

// RFC 6979 section 2.3.4: the hash enters the nonce modulo n; ECDSA itself
// reduces it as well, so both hashes give the same signature.
TEST(Signature, ReducesAHashAboveTheOrder) {
  Bytes above = kOrder;
  above.back() += 5;
  EXPECT_EQ(sign_message(above, Bytes(32, 0x01)), sign_message(join({Bytes(31, 0), {5}}), Bytes(32, 0x01)));
}

TEST(Signature, CountsTheFirst32BytesOfAMessage) {
  const Bytes private_key = Bytes(32, 0x02);
  const Bytes public_key = derive_public_key(private_key);
  const Bytes signature = sign_message(Bytes(32, 0xa5), private_key);
  for (const size_t size : {0u, 31u, 33u, 100u}) {
    const Bytes message(size, 0xa5);
    EXPECT_EQ(sign_message(message, private_key) == signature, size >= 32) << size;
    EXPECT_TRUE(verify_signature(message, sign_message(message, private_key), public_key)) << size;
  }
}

Bytes tagged(uint8_t tag, const Bytes& content) {
  return join({{tag, static_cast<uint8_t>(content.size())}, content});
}

// The DER sequence of two integers with the given content bytes.
Bytes sequence(const Bytes& r, const Bytes& s) {
  return tagged(0x30, join({tagged(0x02, r), tagged(0x02, s)}));
}

// A message whose signature has an r with a sign byte and an s without one.
struct Signed {
  Bytes private_key = Bytes(32, 0x03);
  Bytes public_key = derive_public_key(private_key);
  Bytes message = Bytes(32, 0);
  Bytes der, r, s;

  Signed() {
    do {
      message.back()++;
      der = sign_message(message, private_key);
    } while (der.size() != 71);
    r.assign(der.begin() + 4, der.begin() + 37);
    s.assign(der.begin() + 39, der.end());
  }
};

// The reference agrees on every row: its reader is as strict about DER, and takes
// values of the order and above as invalid.
TEST(VerifySignature, AcceptsOneEncodingOnly) {
  const Signed good;
  const Bytes &r = good.r, &s = good.s;
  const Bytes integers = join({tagged(0x02, r), tagged(0x02, s)});
  const std::tuple<const char*, Bytes, bool> rows[] = {
      {"as signed", good.der, true},
      {"high s", sequence(r, join({{0}, reference::negated(s)})), true},
      {"trailing byte", join({good.der, {0}}), false},
      {"indefinite length", join({{0x30, 0x80}, integers, {0, 0}}), false},
      {"a set", join({{0x31, 69}, integers}), false},
      {"r as bit string", tagged(0x30, join({tagged(0x03, r), tagged(0x02, s)})), false},
      {"a third integer", tagged(0x30, join({integers, tagged(0x02, {1})})), false},
      {"r beyond 256 bits", sequence(join({{1}, r}), s), false},
      {"s of minus one", sequence(r, {0xff}), false},
      {"trailing byte inside the sequence", tagged(0x30, join({integers, {0}})), false},
      {"long-form sequence length", join({{0x30, 0x81, 69}, integers}), false},
      {"long-form integer length", tagged(0x30, join({{0x02, 0x81, 33}, r, tagged(0x02, s)})), false},
      {"negative r, its sign byte missing", sequence(Bytes(r.begin() + 1, r.end()), s), false},
      {"superfluous zero before r", sequence(join({{0}, r}), s), false},
      {"r without content", sequence({}, s), false},
      {"r of zero", sequence({0}, s), false},
      {"s of zero", sequence(r, {0}), false},
      {"r equal to the order", sequence(join({{0}, kOrder}), s), false},
      {"s equal to the order", sequence(r, join({{0}, kOrder})), false},
  };
  for (const auto& [label, der, want] : rows) {
    SCOPED_TRACE(label);
    EXPECT_EQ(verify_signature(good.message, der, good.public_key), want);
    EXPECT_EQ(reference::verify(good.message, der, good.public_key), want);
  }
  for (size_t size = 0; size < good.der.size(); ++size) {
    EXPECT_FALSE(verify_signature(good.message, ByteView(good.der).first(size), good.public_key)) << size;
  }
  for (size_t bit = 0; bit < 8 * good.der.size(); ++bit) {
    Bytes der = good.der;
    der[bit / 8] = static_cast<uint8_t>(der[bit / 8] ^ 1u << bit % 8);
    EXPECT_FALSE(verify_signature(good.message, der, good.public_key)) << bit;
  }
  std::mt19937_64 random(690);
  for (int i = 0; i < 4'000; ++i) {  // in the frame: elsewhere the numbers are wrong, whatever their form
    Bytes der = good.der;
    for (auto count = 1 + random() % 3; count > 0; --count) {
      constexpr size_t kFrame[] = {0, 1, 2, 3, 4, 37, 38, 39};
      der[kFrame[random() % std::size(kFrame)]] = static_cast<uint8_t>(random() % 4 == 0 ? random() : random() % 40);
    }
    const bool want = reference::verify(good.message, der, good.public_key);
    ASSERT_EQ(verify_signature(good.message, der, good.public_key), want) << bytes_to_hex(der);
  }
  EXPECT_EQ(ERR_peek_error(), 0u) << "refusals must leave the error queue as it was";
}

TEST(VerifySignature, RefusesMalformedKeys) {
  const Signed good;
  const uint8_t other_sign = good.public_key.front() ^ 0x01;
  const Bytes x(good.public_key.begin() + 1, good.public_key.end());
  const Bytes same_point = reference::public_key(good.private_key, SECP256K1_EC_UNCOMPRESSED);
  const Bytes not_on_curve = hex_to_bytes("02" + std::string(63, '0') + "5");
  for (const Bytes& key :
       {join({{other_sign}, x}), join({{0x04}, x}), join({good.public_key, {0}}), same_point, not_on_curve, Bytes{}}) {
    EXPECT_FALSE(verify_signature(good.message, good.der, key)) << bytes_to_hex(key);
  }
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(Signature, IsVerifiedAndHashedOnTwoThreadsAtOnce) {
  std::atomic<int> wrong = 0;
  const auto work = [&wrong](uint8_t fill) {
    const Bytes data(32, fill);
    const Bytes public_key = derive_public_key(data);
    const Bytes signature = sign_message(data, data);
    const Bytes hash = hash160(data);
    for (int i = 0; i < 200; ++i) {
      wrong += !verify_signature(data, signature, public_key);
    }
    for (int i = 0; i < 200'000; ++i) {
      wrong += hash160(data) != hash;
    }
  };
  std::thread other(work, uint8_t{1});
  work(2);
  other.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace norvel::crypto
