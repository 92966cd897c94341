#include "crypto/encrypted_message.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <set>

#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto/keys.h"
#include "crypto_testing.h"
#include "reference_curve.h"

namespace norvel::crypto {
namespace {

const Bytes kRecipientKey(32, 0x11);
const Bytes kEphemeralKey(32, 0x22);
const Bytes kNotOnCurve = hex_to_bytes("02" + std::string(63, '0') + "5");
const std::string kNotOnCurveError = "validate_ec_pubkey: EC_POINT_oct2point failed — key not on curve";

// A message made without the code under test: libsecp256k1 multiplies, and the
// cipher is called directly.
EncryptedMessage seal(uint8_t version, const std::string& plaintext) {
  EncryptedMessage message;
  message.version = version;
  message.nonce = Bytes(version == 0 ? 24 : 12, 0x77);
  message.ephemeral_pubkey = reference::public_key(kEphemeralKey);
  const Bytes key = sha256(reference::shared_x(reference::public_key(kRecipientKey), kEphemeralKey)).to_bytes();
  message.ciphertext.resize(plaintext.size() + 16);
  uint8_t* const out = message.ciphertext.data();
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  int len = 0;
  EVP_EncryptInit_ex(context, EVP_aes_256_gcm(), nullptr, nullptr, nullptr);
  EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(message.nonce.size()), nullptr);
  EVP_EncryptInit_ex(context, nullptr, nullptr, key.data(), message.nonce.data());
  EVP_EncryptUpdate(context, out, &len, reinterpret_cast<const uint8_t*>(plaintext.data()),
                    static_cast<int>(plaintext.size()));
  EVP_EncryptFinal_ex(context, out + len, &len);
  EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_GET_TAG, 16, out + plaintext.size());
  EVP_CIPHER_CTX_free(context);
  return message;
}

TEST(EncryptMessage, IsDecryptedByTheRecipient) {
  const auto [private_key, public_key] = generate_keypair();
  std::mt19937_64 random(5);
  for (const size_t size : {0u, 1u, 15u, 16u, 17u, 1024u, 100'000u}) {
    const Bytes content = random_bytes(random, size);
    const std::string plaintext(content.begin(), content.end());
    const EncryptedMessage message = encrypt_message(plaintext, public_key);
    EXPECT_EQ(message.version, 1);
    EXPECT_EQ(message.ciphertext.size(), size + 16);
    EXPECT_EQ(message.nonce.size(), 12u);
    EXPECT_EQ(message.ephemeral_pubkey.size(), 33u);
    EXPECT_EQ(decrypt_message(message, private_key), plaintext) << size;
  }
}

TEST(EncryptMessage, NeverRepeatsAKeyOrANonce) {
  std::set<Bytes> seen;
  for (int i = 0; i < 20; ++i) {
    const EncryptedMessage message = encrypt_message("same", reference::public_key(kRecipientKey));
    EXPECT_TRUE(seen.insert(message.ephemeral_pubkey).second);
    EXPECT_TRUE(seen.insert(message.nonce).second);
  }
}

TEST(EncryptMessage, StatesWhatItRefuses) {
  const std::string size = "encrypt_message: invalid recipient public key size";
  EXPECT_EQ(thrown_by([] { encrypt_message("x", Bytes(32, 2)); }), size);
  EXPECT_EQ(thrown_by([] { encrypt_message("x", Bytes(65, 4)); }), size);
  EXPECT_EQ(thrown_by([] { encrypt_message("x", kNotOnCurve); }), kNotOnCurveError);
}

TEST(DecryptMessage, ReadsBothVersionsMadeElsewhere) {
  for (const uint8_t version : {uint8_t{0}, uint8_t{1}}) {
    for (const std::string plaintext : {"", "a", "a note of somewhat more than one cipher block"}) {
      EXPECT_EQ(decrypt_message(seal(version, plaintext), kRecipientKey), plaintext) << int{version};
    }
  }
}

TEST(DecryptMessage, IsEmptyWhenAnythingWasChanged) {
  const EncryptedMessage good = seal(1, "twenty bytes of text");
  for (size_t i = 0; i < good.ciphertext.size(); ++i) {
    EncryptedMessage bad = good;
    bad.ciphertext[i] ^= 0x01;
    EXPECT_EQ(decrypt_message(bad, kRecipientKey), "") << i;
  }
  for (size_t i = 0; i < good.nonce.size(); ++i) {
    EncryptedMessage bad = good;
    bad.nonce[i] ^= 0x80;
    EXPECT_EQ(decrypt_message(bad, kRecipientKey), "") << i;
  }
  EncryptedMessage shorter = good;
  shorter.ciphertext.pop_back();
  EXPECT_EQ(decrypt_message(shorter, kRecipientKey), "");
  EncryptedMessage other_key = good;
  other_key.ephemeral_pubkey = reference::public_key(Bytes(32, 0x23));
  EXPECT_EQ(decrypt_message(other_key, kRecipientKey), "");
  EXPECT_EQ(decrypt_message(good, Bytes(32, 0x12)), "");
}

TEST(DecryptMessage, StatesWhatItRefuses) {
  const auto changed = [](auto change) {
    EncryptedMessage message = seal(1, "text");
    change(message);
    return message;
  };
  const std::string mismatch = "decrypt_message: nonce size mismatch for version";
  const struct {
    const char* label;
    EncryptedMessage message;
    Bytes private_key;
    std::string error;
  } rows[] = {
      {"nothing wrong", seal(1, "text"), kRecipientKey, "(none)"},
      {"short private key", seal(1, "text"), Bytes(31, 1), "decrypt_message: invalid private key size"},
      {"private key of zero", seal(1, "text"), Bytes(32, 0), "decrypt_message: failed to load private key"},
      {"private key above the order", seal(1, "text"), Bytes(32, 0xff), "decrypt_message: failed to load private key"},
      {"short ephemeral key", changed([](auto& m) { m.ephemeral_pubkey.pop_back(); }), kRecipientKey,
       "decrypt_message: invalid ephemeral public key size"},
      {"ephemeral key not on the curve", changed([](auto& m) { m.ephemeral_pubkey = kNotOnCurve; }), kRecipientKey,
       kNotOnCurveError},
      {"15 bytes of ciphertext", changed([](auto& m) { m.ciphertext.resize(15); }), kRecipientKey,
       "decrypt_message: ciphertext too short"},
      {"version 0 with 12 bytes of nonce", changed([](auto& m) { m.version = 0; }), kRecipientKey, mismatch},
      {"version 1 with 24 bytes of nonce", changed([](auto& m) { m.nonce.resize(24); }), kRecipientKey, mismatch},
      {"version 1 without a nonce", changed([](auto& m) { m.nonce.clear(); }), kRecipientKey, mismatch},
      {"version 2", changed([](auto& m) { m.version = 2; }), kRecipientKey, mismatch},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(thrown_by([&] { decrypt_message(row.message, row.private_key); }), row.error);
  }
}

TEST(EncryptedMessageFormat, PlacesItsFields) {
  EncryptedMessage message;
  message.ciphertext = Bytes(0x0102, 0xcc);
  message.nonce = Bytes(12, 0xdd);
  message.ephemeral_pubkey = Bytes(33, 0xee);
  EXPECT_EQ(bytes_to_hex(message.serialize()),
            "01"
            "00000102" +
                bytes_to_hex(message.ciphertext) + bytes_to_hex(message.nonce) +
                bytes_to_hex(message.ephemeral_pubkey));
}

TEST(EncryptedMessageFormat, ReadsWhatItWritesAndStopsAtItsEnd) {
  for (const uint8_t version : {uint8_t{0}, uint8_t{1}}) {
    const EncryptedMessage message = seal(version, "text");
    Bytes data(3, 0xff);
    append(data, message.serialize());
    const size_t end = data.size();
    data.push_back(0xff);
    size_t offset = 3;
    const EncryptedMessage read = EncryptedMessage::deserialize(data, offset);
    EXPECT_EQ(offset, end);
    EXPECT_EQ(read.serialize(), message.serialize());
    EXPECT_EQ(decrypt_message(read, kRecipientKey), "text");
  }
}

TEST(EncryptedMessageFormat, StatesWhereItIsCut) {
  for (const uint8_t version : {uint8_t{0}, uint8_t{1}}) {
    const Bytes data = seal(version, "text").serialize();
    for (size_t size = 0; size < data.size(); ++size) {
      // A copy of exactly this size lets the address sanitizer see a read past it.
      const Bytes cut(data.begin(), data.begin() + static_cast<ptrdiff_t>(size));
      size_t offset = 0;
      const std::string error = thrown_by([&] { EncryptedMessage::deserialize(cut, offset); });
      EXPECT_EQ(error, size == 0  ? "EncryptedMessage::deserialize: truncated version byte"
                       : size < 5 ? "EncryptedMessage::deserialize: truncated header"
                                  : "EncryptedMessage::deserialize: truncated body")
          << size;
      EXPECT_EQ(offset, 0u);
    }
  }
}

TEST(EncryptedMessageFormat, RefusesOtherVersionsAndLengths) {
  const std::string version = "EncryptedMessage::deserialize: unknown format version";
  const std::string length = "EncryptedMessage::deserialize: implausible ciphertext length";
  const size_t largest = 0x400000;
  const struct {
    const char* label;
    const char* header;
    size_t body_bytes;
    std::string error;
  } rows[] = {
      {"version 2", "0200000000", 45, version},
      {"version 255 alone", "ff", 0, version},
      {"empty ciphertext", "0100000000", 45, "(none)"},
      {"largest ciphertext", "0100400000", largest + 45, "(none)"},
      {"largest ciphertext, version 0", "0000400000", largest + 57, "(none)"},
      {"largest ciphertext, one byte cut", "0100400000", largest + 44, "EncryptedMessage::deserialize: truncated body"},
      {"one byte more", "0100400001", largest + 46, length},
      {"all ones", "01ffffffff", 45, length},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Bytes data = hex_to_bytes(row.header);
    data.resize(data.size() + row.body_bytes);
    size_t offset = 0;
    EXPECT_EQ(thrown_by([&] { EncryptedMessage::deserialize(data, offset); }), row.error);
    EXPECT_EQ(offset, row.error == "(none)" ? data.size() : 0);
  }
  size_t beyond = 10;
  EXPECT_EQ(thrown_by([&] { EncryptedMessage::deserialize(Bytes(3), beyond); }),
            "EncryptedMessage::deserialize: truncated version byte");
}

}  // namespace
}  // namespace norvel::crypto
