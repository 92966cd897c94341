// Short notes encrypted to a public key: one-time ECDH on secp256k1, the
// SHA-256 of the shared X coordinate as key, AES-256-GCM (NIST SP 800-38D).
//
// Errors: std::runtime_error whose message begins with the function's name.
// Threads: free functions without shared state, and a plain value.

#pragma once

#include <cstdint>
#include <string>

#include "core/bytes.h"

namespace norvel::crypto {

//   version            1  1; 0 is read, and marks the older nonce size
//   length C           4  big-endian, at most 4 MiB when read
//   ciphertext         C  AES-256-GCM ciphertext and its 16-byte tag
//   nonce             12  24 when the version is 0
//   ephemeral_pubkey  33  SEC 1 compressed point
struct EncryptedMessage {
  uint8_t version = 1;
  Bytes ciphertext;
  Bytes nonce;
  Bytes ephemeral_pubkey;

  // The fields as they stand, whatever their sizes.
  Bytes serialize() const;

  // Reads the format at `offset` and advances it. Throws std::runtime_error,
  // leaving `offset`: "EncryptedMessage::deserialize: " and "truncated version
  // byte", "unknown format version", "truncated header", "implausible ciphertext
  // length" or "truncated body". Neither point nor tag is checked here.
  static EncryptedMessage deserialize(ByteView data, size_t& offset);
};

// Encrypts `plaintext` for the holder of `recipient_pubkey` (33 bytes) with a
// fresh ephemeral key and a random nonce; the ciphertext is 16 bytes longer than
// the plaintext. Throws for a key that is no point of the curve.
EncryptedMessage encrypt_message(const std::string& plaintext, const Bytes& recipient_pubkey);

// The plaintext, or an empty string when authentication fails. Throws when the
// private key is not a 32-byte scalar in [1, n - 1], the ephemeral key is no point
// of the curve, the ciphertext has no room for its tag, or the nonce has not the
// size of the version (any version but 0 and 1 has none).
std::string decrypt_message(const EncryptedMessage& message, const Bytes& private_key);

}  // namespace norvel::crypto
