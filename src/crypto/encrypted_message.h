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

//   version            1  0 or 1
//   length C           4  big-endian, at most 4 MiB
//   ciphertext         C  AES-256-GCM ciphertext and its 16-byte tag
//   nonce             12  24 when the version is 0
//   ephemeral_pubkey  33  SEC 1 compressed point
struct EncryptedMessage {
  uint8_t version = 1;
  Bytes ciphertext;
  Bytes nonce;
  Bytes ephemeral_pubkey;

  Bytes serialize() const;

  // Reads the format at `offset` and advances it; on failure it stays.
  static EncryptedMessage deserialize(ByteView data, size_t& offset);
};

// Encrypts `plaintext` for the holder of `recipient_pubkey` (33 bytes) with a
// fresh ephemeral key and a random nonce.
EncryptedMessage encrypt_message(const std::string& plaintext, const Bytes& recipient_pubkey);

// The plaintext, or an empty string when authentication fails. Throws when a
// key, the nonce or the ciphertext is malformed.
std::string decrypt_message(const EncryptedMessage& message, const Bytes& private_key);

}  // namespace norvel::crypto
