#include "crypto/encrypted_message.h"

#include <gtest/gtest.h>

#include <set>

#include "crypto/hex.h"
#include "crypto/keys.h"
#include "crypto_testing.h"

namespace norvel::crypto {
namespace {

const Bytes kRecipientKey(32, 0x11);
const Bytes kNotOnCurve = hex_to_bytes("02" + std::string(63, '0') + "5");
const std::string kNotOnCurveError = "validate_ec_pubkey: EC_POINT_oct2point failed — key not on curve";

// Made with Python's cryptography for kRecipientKey, one of each version.
const std::string kPlaintext = "one block and a bit";
const Bytes kSealed[] = {
    hex_to_bytes("0000000023ae4cea08954a10014c54c0de78f1f636fbd2e1fc431a2ece68648459cd7668649d94be77777777777777777777"
                 "777777777777777777777777777702466d7fcae563e5cb09a0d1870bb580344804617879a14949cf22285f1bae3f27"),
    hex_to_bytes(
        "01000000232bf20ce94d4a2a677474444139cae917e9552666625fa95b842de82ec481f54546707c7777777777777777777777"
        "7702466d7fcae563e5cb09a0d1870bb580344804617879a14949cf22285f1bae3f27")};

EncryptedMessage read(const Bytes& data, size_t offset = 0) {
  return EncryptedMessage::deserialize(data, offset);
}

TEST(EncryptMessage, IsReadByTheRecipientUnderAFreshKeyAndNonce) {
  const Bytes public_key = derive_public_key(kRecipientKey);
  std::mt19937_64 random(5);
  std::set<Bytes> seen;
  for (const size_t size : {0u, 0u, 1u, 15u, 16u, 17u, 1024u, 100'000u}) {
    const Bytes content = random_bytes(random, size);
    const std::string plaintext(content.begin(), content.end());
    const EncryptedMessage message = encrypt_message(plaintext, public_key);
    EXPECT_EQ(message.version, 1);
    EXPECT_EQ(message.ciphertext.size(), size + 16);
    EXPECT_TRUE(seen.insert(message.nonce).second);
    EXPECT_TRUE(seen.insert(message.ephemeral_pubkey).second);
    EXPECT_EQ(decrypt_message(read(message.serialize()), kRecipientKey), plaintext) << size;
  }
  EXPECT_EQ(thrown_by([] { encrypt_message("x", Bytes(32, 2)); }),
            "encrypt_message: invalid recipient public key size");
  EXPECT_EQ(thrown_by([] { encrypt_message("x", kNotOnCurve); }), kNotOnCurveError);
}

TEST(DecryptMessage, IsEmptyWhenAnythingWasChanged) {
  const Bytes& good = kSealed[1];
  EXPECT_EQ(decrypt_message(read(good), Bytes(32, 0x12)), "");
  for (size_t i = 5; i < good.size(); ++i) {
    Bytes changed = good;
    changed[i] ^= 0x80;
    std::string text;
    const std::string error = thrown_by([&] { text = decrypt_message(read(changed), kRecipientKey); });
    EXPECT_TRUE(error == "(none)" || (i >= good.size() - 33 && error == kNotOnCurveError)) << i << error;
    EXPECT_EQ(text, "") << i;
  }
}

TEST(DecryptMessage, StatesWhatItRefuses) {
  const std::string mismatch = "decrypt_message: nonce size mismatch for version";
  const std::pair<void (*)(EncryptedMessage & message, Bytes & private_key), std::string> rows[] = {
      {[](auto&, Bytes& key) { key.pop_back(); }, "decrypt_message: invalid private key size"},
      {[](auto&, Bytes& key) { key = Bytes(32, 0); }, "decrypt_message: failed to load private key"},
      {[](auto& message, Bytes&) { message.ephemeral_pubkey.pop_back(); },
       "decrypt_message: invalid ephemeral public key size"},
      {[](auto& message, Bytes&) { message.ciphertext.resize(15); }, "decrypt_message: ciphertext too short"},
      {[](auto& message, Bytes&) { message.version = 0; }, mismatch},
      {[](auto& message, Bytes&) { message.nonce.resize(24); }, mismatch},
      {[](auto& message, Bytes&) { message.version = 2; }, mismatch},
  };
  for (const auto& [change, error] : rows) {
    EncryptedMessage message = read(kSealed[1]);
    Bytes private_key = kRecipientKey;
    change(message, private_key);
    EXPECT_EQ(thrown_by([&] { decrypt_message(message, private_key); }), error);
  }
}

TEST(EncryptedMessageFormat, ReadsBothVersionsAndStatesWhereTheyAreCut) {
  for (const Bytes& sealed : kSealed) {
    const Bytes inside = join({Bytes(3, 0xff), sealed, {0xff}});
    size_t offset = 3;
    const EncryptedMessage message = EncryptedMessage::deserialize(inside, offset);
    EXPECT_EQ(offset, 3 + sealed.size());
    EXPECT_EQ(message.serialize(), sealed);
    EXPECT_EQ(decrypt_message(message, kRecipientKey), kPlaintext);
    for (size_t size = 0; size < sealed.size(); ++size) {
      // A copy of exactly this size lets the address sanitizer see a read past it.
      const Bytes cut(sealed.begin(), sealed.begin() + static_cast<ptrdiff_t>(size));
      offset = 0;
      const std::string field = size == 0 ? "version byte" : size < 5 ? "header" : "body";
      EXPECT_EQ(thrown_by([&] { EncryptedMessage::deserialize(cut, offset); }),
                "EncryptedMessage::deserialize: truncated " + field);
      EXPECT_EQ(offset, 0u);
    }
  }
}

TEST(EncryptedMessageFormat, RefusesOtherVersionsAndLengths) {
  const auto error_at = [](const std::string& header, size_t body_bytes) {
    return thrown_by([&] { read(join({hex_to_bytes(header), Bytes(body_bytes)})); });
  };
  const size_t most = 0x400000;
  EXPECT_EQ(error_at("0200000000", 45), "EncryptedMessage::deserialize: unknown format version");
  EXPECT_EQ(error_at("0100400000", most + 45), "(none)");
  EXPECT_EQ(error_at("0100400001", most + 46), "EncryptedMessage::deserialize: implausible ciphertext length");
}

}  // namespace
}  // namespace norvel::crypto
