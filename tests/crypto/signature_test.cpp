#include "crypto/signature.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/err.h>

#include <array>
#include <thread>
#include <vector>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto/keys.h"
#include "crypto_testing.h"
#include "reference_curve.h"

namespace norvel::crypto {
namespace {

constexpr const char kOrder[] = "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141";

// A seeded private key; below the order, but for a chance of 2^-128.
Bytes key_of_seed(uint64_t seed) {
  std::mt19937_64 random(seed);
  return random_bytes(random, 32);
}

TEST(Signature, EqualsTheReferenceForAThousandKeysAndMessages) {
  std::mt19937_64 random(6979);
  for (int i = 0; i < 1000; ++i) {
    const Bytes private_key = random_bytes(random, 32);
    const Bytes message = random_bytes(random, 32);
    const Bytes public_key = reference::public_key(private_key);
    ASSERT_EQ(derive_public_key(private_key), public_key) << i;
    const Bytes signature = sign_message_deterministic(message, private_key);
    ASSERT_EQ(bytes_to_hex(signature), bytes_to_hex(reference::sign(message, private_key))) << i;
    ASSERT_TRUE(reference::verify(message, signature, public_key)) << i;
    ASSERT_TRUE(verify_signature(message, reference::sign(message, private_key), public_key)) << i;
    Bytes other = message;
    other[static_cast<size_t>(i % 32)] ^= 0x80;
    ASSERT_FALSE(verify_signature(other, signature, public_key)) << i;
  }
}

TEST(Signature, WorksAtTheEdgesOfTheKeyRange) {
  Bytes one(32, 0);
  one.back() = 1;
  Bytes last = hex_to_bytes(kOrder);
  last.back() -= 1;
  for (const Bytes& private_key : {one, last}) {
    for (const Bytes& message : {Bytes(32, 0x00), Bytes(32, 0x01), one}) {
      const Bytes signature = sign_message(message, private_key);
      EXPECT_EQ(signature, reference::sign(message, private_key));
      EXPECT_TRUE(verify_signature(message, signature, derive_public_key(private_key)));
    }
  }
}

// RFC 6979 section 2.3.4: the hash enters the nonce modulo n; ECDSA itself
// reduces it as well, so both hashes give the same signature.
TEST(Signature, ReducesAHashAboveTheOrder) {
  Bytes above = hex_to_bytes(kOrder);
  above.back() += 5;
  Bytes remainder(32, 0);
  remainder.back() = 5;
  EXPECT_EQ(sign_message(above, key_of_seed(1)), sign_message(remainder, key_of_seed(1)));
}

TEST(Signature, CountsTheFirst32BytesOfAMessage) {
  const Bytes private_key = key_of_seed(2);
  const Bytes public_key = derive_public_key(private_key);
  const Bytes message(100, 0xa5);
  const Bytes signature = sign_message(ByteView(message).first(32), private_key);
  for (const size_t size : {0u, 1u, 20u, 31u, 32u, 33u, 64u, 100u}) {
    const ByteView part = ByteView(message).first(size);
    EXPECT_EQ(sign_message(part, private_key) == signature, size >= 32) << size;
    EXPECT_TRUE(verify_signature(part, sign_message(part, private_key), public_key)) << size;
  }
}

TEST(Signature, StatesWhatItRefuses) {
  const std::string size = "sign_message_deterministic: invalid private key size";
  const std::string range = "sign_message_deterministic: failed to set private key";
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
    EXPECT_EQ(thrown_by([&] { sign_message(Bytes(32, 1), row.private_key); }), row.error);
  }
}

Bytes tagged(uint8_t tag, const Bytes& content) {
  Bytes out = {tag, static_cast<uint8_t>(content.size())};
  append(out, content);
  return out;
}

// The DER sequence of two integers with the given content bytes.
Bytes sequence(const Bytes& r, const Bytes& s) {
  Bytes content = tagged(0x02, r);
  append(content, tagged(0x02, s));
  return tagged(0x30, content);
}

// value + sign * n as the content of a DER integer.
Bytes plus_order(const Bytes& value, int sign) {
  const Bytes order = hex_to_bytes(kOrder);
  BIGNUM* sum = BN_bin2bn(value.data(), static_cast<int>(value.size()), nullptr);
  BIGNUM* n = BN_bin2bn(order.data(), static_cast<int>(order.size()), nullptr);
  BN_set_negative(sum, sign < 0);  // n - value
  BN_add(sum, n, sum);
  Bytes content(1 + static_cast<size_t>(BN_num_bytes(sum)), 0);
  BN_bn2bin(sum, content.data() + 1);
  BN_free(sum);
  BN_free(n);
  if (content[1] < 0x80) {
    content.erase(content.begin());
  }
  return content;
}

Bytes with_zero_in_front(Bytes content) {
  content.insert(content.begin(), 0x00);
  return content;
}

// A message whose signature has an r with a sign byte and an s without one.
struct Signed {
  Bytes private_key = key_of_seed(3);
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
  const Bytes order = with_zero_in_front(hex_to_bytes(kOrder));
  Bytes trailing = good.der;
  trailing.push_back(0x00);
  Bytes trailing_inside = trailing;
  trailing_inside[1]++;
  Bytes long_sequence = good.der;
  long_sequence.insert(long_sequence.begin() + 1, 0x81);
  Bytes long_integer = good.der;
  long_integer.insert(long_integer.begin() + 3, 0x81);
  long_integer[1]++;
  Bytes indefinite = trailing;
  indefinite[1] = 0x80;
  indefinite.push_back(0x00);
  Bytes wrong_sequence_tag = good.der;
  wrong_sequence_tag[0] = 0x31;
  Bytes wrong_integer_tag = good.der;
  wrong_integer_tag[2] = 0x03;
  const struct {
    const char* label;
    Bytes der;
    bool want;
  } rows[] = {
      {"as signed", good.der, true},
      {"rebuilt", sequence(r, s), true},
      {"high s", sequence(r, plus_order(s, -1)), true},
      {"empty", {}, false},
      {"sequence of nothing", {0x30, 0x00}, false},
      {"one byte cut", Bytes(good.der.begin(), good.der.end() - 1), false},
      {"trailing byte", trailing, false},
      {"trailing byte inside the sequence", trailing_inside, false},
      {"long-form sequence length", long_sequence, false},
      {"long-form integer length", long_integer, false},
      {"indefinite length", indefinite, false},
      {"set instead of sequence", wrong_sequence_tag, false},
      {"bit string instead of integer", wrong_integer_tag, false},
      {"negative r, its sign byte missing", sequence(Bytes(r.begin() + 1, r.end()), s), false},
      {"negative s", sequence(r, {0xff}), false},
      {"superfluous zero before r", sequence(with_zero_in_front(r), s), false},
      {"superfluous zero before s", sequence(r, with_zero_in_front(s)), false},
      {"r without content", sequence({}, s), false},
      {"s missing", tagged(0x30, tagged(0x02, r)), false},
      {"r of zero", sequence({0x00}, s), false},
      {"s of zero", sequence(r, {0x00}), false},
      {"r equal to the order", sequence(order, s), false},
      {"s equal to the order", sequence(r, order), false},
      {"r plus the order", sequence(plus_order(r, 1), s), false},
      {"s plus the order", sequence(r, plus_order(s, 1)), false},
      {"r and s exchanged", sequence(s, r), false},
      {"64 KB", Bytes(65536, 0x30), false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(verify_signature(good.message, row.der, good.public_key), row.want);
    EXPECT_EQ(reference::verify(good.message, row.der, good.public_key), row.want);
  }
  EXPECT_EQ(ERR_peek_error(), 0u) << "refusals must leave the error queue as it was";
}

TEST(VerifySignature, RefusesEveryCutAndEveryChangedBit) {
  const Signed good;
  for (size_t size = 0; size < good.der.size(); ++size) {
    EXPECT_FALSE(verify_signature(good.message, ByteView(good.der).first(size), good.public_key)) << size;
  }
  for (size_t bit = 0; bit < 8 * good.der.size(); ++bit) {
    Bytes der = good.der;
    der[bit / 8] = static_cast<uint8_t>(der[bit / 8] ^ 1u << bit % 8);
    EXPECT_FALSE(verify_signature(good.message, der, good.public_key)) << bit;
    EXPECT_FALSE(reference::verify(good.message, der, good.public_key)) << bit;
  }
}

TEST(VerifySignature, RefusesMalformedKeys) {
  const Signed good;
  Bytes other_sign = good.public_key;
  other_sign[0] ^= 0x01;
  Bytes uncompressed_tag = good.public_key;
  uncompressed_tag[0] = 0x04;
  Bytes infinity_tag(33, 0);
  Bytes longer = good.public_key;
  longer.push_back(0x00);
  const struct {
    const char* label;
    Bytes public_key;
    bool want;
  } rows[] = {
      {"as derived", good.public_key, true},
      {"the negative point", other_sign, false},
      {"empty", {}, false},
      {"32 bytes", Bytes(good.public_key.begin(), good.public_key.end() - 1), false},
      {"34 bytes", longer, false},
      {"65 bytes, the same point", reference::public_key(good.private_key, SECP256K1_EC_UNCOMPRESSED), false},
      {"tag 4 on 33 bytes", uncompressed_tag, false},
      {"all zero", infinity_tag, false},
      {"X without a point", hex_to_bytes("02" + std::string(63, '0') + "5"), false},
      {"X equal to the field prime", hex_to_bytes("02fffffffffffffffffffffffffffffffffffffffffffffffffffffffefffffc2f"),
       false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(verify_signature(good.message, good.der, row.public_key), row.want);
  }
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(Signature, SignsAndVerifiesOnSeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::array<int, 4> wrong{};
  for (size_t t = 0; t < wrong.size(); ++t) {
    threads.emplace_back([&wrong, t] {
      const Bytes private_key = key_of_seed(100 + t);
      const Bytes public_key = derive_public_key(private_key);
      for (uint8_t i = 0; i < 20; ++i) {
        const Bytes message(32, i);
        const Bytes signature = sign_message(message, private_key);
        wrong[t] += signature != reference::sign(message, private_key);
        wrong[t] += !verify_signature(message, signature, public_key);
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
