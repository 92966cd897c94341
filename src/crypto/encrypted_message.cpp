#include "crypto/encrypted_message.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <limits>
#include <span>
#include <stdexcept>

#include "crypto/curve.h"
#include "crypto/keys.h"
#include "crypto/secure_zero.h"

namespace norvel::crypto {

namespace {

constexpr uint8_t kVersion = 1;
constexpr uint8_t kOldVersion = 0;
constexpr size_t kNonceBytes = 12;
constexpr size_t kOldNonceBytes = 24;
constexpr size_t kTagBytes = 16;
constexpr size_t kAesKeyBytes = 32;
constexpr size_t kCoordinateBytes = 32;
constexpr size_t kLengthFieldBytes = 4;
// Refuses an absurd length before the body is looked at.
constexpr uint32_t kCiphertextBytesMax = 4 * 1024 * 1024;
constexpr size_t kIntMax = std::numeric_limits<int>::max();

using AesKey = std::array<uint8_t, kAesKeyBytes>;

constexpr size_t nonce_bytes(uint8_t version) {
  return version == kOldVersion ? kOldNonceBytes : kNonceBytes;
}

[[noreturn]] void fail(const char* function, const char* what) {
  throw std::runtime_error(std::string(function) + ": " + what);
}

// Fills `key` with the SHA-256 of the X coordinate of public_key * private_key.
// A context of its own hashes the secret: it is cleansed when it is freed.
void derive_aes_key(const char* function, const char* load_failure, const Bytes& public_key, const Bytes& private_key,
                    AesKey& key) {
  const Curve* curve = secp256k1_curve();
  if (curve == nullptr) {
    fail(function, "EC_GROUP_new failed");
  }
  const EcPoint point = validate_ec_pubkey(*curve, public_key);
  const BigNumber scalar = read_scalar(*curve, private_key);
  if (scalar == nullptr) {
    fail(function, load_failure);
  }
  const EcPoint shared(EC_POINT_new(curve->group));
  if (shared == nullptr) {
    fail(function, "EC_POINT_new failed");
  }
  if (EC_POINT_mul(curve->group, shared.get(), nullptr, point.get(), scalar.get(), nullptr) != 1) {
    fail(function, "ECDH multiplication failed");
  }
  const BigNumber x(BN_new());
  std::array<uint8_t, kCoordinateBytes> x_bytes;
  const WipeOnExit wipe_x(x_bytes);
  if (x == nullptr || EC_POINT_get_affine_coordinates(curve->group, shared.get(), x.get(), nullptr, nullptr) != 1 ||
      BN_bn2binpad(x.get(), x_bytes.data(), kCoordinateBytes) != kCoordinateBytes ||
      EVP_Digest(x_bytes.data(), x_bytes.size(), key.data(), nullptr, EVP_sha256(), nullptr) != 1) {
    fail(function, "failed to extract ECDH X coordinate");
  }
}

// AES-256-GCM of `plaintext` with the tag appended.
Bytes gcm_encrypt(const std::string& plaintext, const AesKey& key, const Bytes& nonce) {
  constexpr const char* kFunction = "encrypt_message";
  const CipherContext context(EVP_CIPHER_CTX_new());
  if (context == nullptr) {
    fail(kFunction, "EVP_CIPHER_CTX_new failed");
  }
  EVP_CIPHER_CTX* ctx = context.get();
  if (EVP_EncryptInit_ex2(ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(nonce.size()), nullptr) != 1 ||
      EVP_EncryptInit_ex2(ctx, nullptr, key.data(), nonce.data(), nullptr) != 1) {
    fail(kFunction, "AES-GCM init failed");
  }
  Bytes ciphertext(plaintext.size() + kTagBytes);
  int len = 0;
  if (plaintext.size() > kIntMax ||
      EVP_EncryptUpdate(ctx, ciphertext.data(), &len, reinterpret_cast<const uint8_t*>(plaintext.data()),
                        static_cast<int>(plaintext.size())) != 1 ||
      static_cast<size_t>(len) != plaintext.size()) {
    fail(kFunction, "EVP_EncryptUpdate failed");
  }
  uint8_t* const tag = ciphertext.data() + plaintext.size();
  if (EVP_EncryptFinal_ex(ctx, tag, &len) != 1) {
    fail(kFunction, "EVP_EncryptFinal_ex failed");
  }
  if (EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_GET_TAG, kTagBytes, tag) != 1) {
    fail(kFunction, "EVP_CTRL_GCM_GET_TAG failed");
  }
  return ciphertext;
}

// The plaintext of `ciphertext`, whose last bytes are the tag; empty when it is
// not authentic.
std::string gcm_decrypt(ByteView ciphertext, const AesKey& key, const Bytes& nonce) {
  constexpr const char* kFunction = "decrypt_message";
  const CipherContext context(EVP_CIPHER_CTX_new());
  if (context == nullptr) {
    fail(kFunction, "EVP_CIPHER_CTX_new failed");
  }
  EVP_CIPHER_CTX* ctx = context.get();
  if (EVP_DecryptInit_ex2(ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(nonce.size()), nullptr) != 1 ||
      EVP_DecryptInit_ex2(ctx, nullptr, key.data(), nonce.data(), nullptr) != 1) {
    fail(kFunction, "AES-GCM init failed");
  }
  const ByteView body = ciphertext.first(ciphertext.size() - kTagBytes);
  const ByteView tag_view = ciphertext.last(kTagBytes);
  std::array<uint8_t, kTagBytes> tag;
  std::copy(tag_view.begin(), tag_view.end(), tag.begin());
  std::string plaintext(body.size(), '\0');
  auto* const out = reinterpret_cast<uint8_t*>(plaintext.data());
  int len = 0;
  if (body.size() > kIntMax || EVP_DecryptUpdate(ctx, out, &len, body.data(), static_cast<int>(body.size())) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_TAG, kTagBytes, tag.data()) != 1 ||
      EVP_DecryptFinal_ex(ctx, out + len, &len) != 1) {
    secure_zero(plaintext.data(), plaintext.size());
    return "";
  }
  return plaintext;
}

}  // namespace

Bytes EncryptedMessage::serialize() const {
  Bytes out;
  out.reserve(1 + kLengthFieldBytes + ciphertext.size() + nonce.size() + ephemeral_pubkey.size());
  out.push_back(version);
  for (size_t i = 0; i < kLengthFieldBytes; ++i) {
    out.push_back(static_cast<uint8_t>(ciphertext.size() >> 8 * (kLengthFieldBytes - 1 - i)));
  }
  append(out, ciphertext);
  append(out, nonce);
  append(out, ephemeral_pubkey);
  return out;
}

EncryptedMessage EncryptedMessage::deserialize(ByteView data, size_t& offset) {
  size_t at = offset;
  EncryptedMessage message;
  message.version = take(data, at, 1, "EncryptedMessage::deserialize: truncated version byte").front();
  if (message.version != kVersion && message.version != kOldVersion) {
    throw std::runtime_error("EncryptedMessage::deserialize: unknown format version");
  }
  uint32_t ciphertext_bytes = 0;
  for (const uint8_t byte : take(data, at, kLengthFieldBytes, "EncryptedMessage::deserialize: truncated header")) {
    ciphertext_bytes = ciphertext_bytes << 8 | byte;
  }
  if (ciphertext_bytes > kCiphertextBytesMax) {
    throw std::runtime_error("EncryptedMessage::deserialize: implausible ciphertext length");
  }
  const size_t nonce_len = nonce_bytes(message.version);
  const ByteView body =
      take(data, at, ciphertext_bytes + nonce_len + kPublicKeyBytes, "EncryptedMessage::deserialize: truncated body");
  const ByteView after_ciphertext = body.subspan(ciphertext_bytes);
  message.ciphertext.assign(body.begin(), after_ciphertext.begin());
  message.nonce.assign(after_ciphertext.begin(), after_ciphertext.begin() + static_cast<ptrdiff_t>(nonce_len));
  message.ephemeral_pubkey.assign(after_ciphertext.begin() + static_cast<ptrdiff_t>(nonce_len), body.end());
  offset = at;
  return message;
}

EncryptedMessage encrypt_message(const std::string& plaintext, const Bytes& recipient_pubkey) {
  constexpr const char* kFunction = "encrypt_message";
  const ErrorQueueMark mark;
  if (recipient_pubkey.size() != kPublicKeyBytes) {
    fail(kFunction, "invalid recipient public key size");
  }
  EncryptedMessage message;
  auto [ephemeral_private_key, ephemeral_pubkey] = generate_keypair();
  const WipeOnExit wipe_private_key(ephemeral_private_key);
  AesKey key;
  const WipeOnExit wipe_key(key);
  derive_aes_key(kFunction, "failed to load ephemeral private key", recipient_pubkey, ephemeral_private_key, key);
  message.nonce.resize(kNonceBytes);
  if (RAND_bytes(message.nonce.data(), kNonceBytes) != 1) {
    fail(kFunction, "RAND_bytes failed");
  }
  message.ciphertext = gcm_encrypt(plaintext, key, message.nonce);
  message.ephemeral_pubkey = std::move(ephemeral_pubkey);
  return message;
}

std::string decrypt_message(const EncryptedMessage& message, const Bytes& private_key) {
  constexpr const char* kFunction = "decrypt_message";
  const ErrorQueueMark mark;
  if (private_key.size() != kPrivateKeyBytes) {
    fail(kFunction, "invalid private key size");
  }
  if (message.ephemeral_pubkey.size() != kPublicKeyBytes) {
    fail(kFunction, "invalid ephemeral public key size");
  }
  if (message.ciphertext.size() < kTagBytes) {
    fail(kFunction, "ciphertext too short");
  }
  AesKey key;
  const WipeOnExit wipe_key(key);
  derive_aes_key(kFunction, "failed to load private key", message.ephemeral_pubkey, private_key, key);
  if (message.version > kVersion || message.nonce.size() != nonce_bytes(message.version)) {
    fail(kFunction, "nonce size mismatch for version");
  }
  return gcm_decrypt(message.ciphertext, key, message.nonce);
}

}  // namespace norvel::crypto
