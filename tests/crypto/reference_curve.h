// libsecp256k1, an implementation of the same curve that shares no code with
// the one under test.

#pragma once

#include <secp256k1.h>

#include "core/bytes.h"

namespace norvel::crypto::reference {

inline const secp256k1_context* context() {
  static const secp256k1_context* const context = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
  return context;
}

inline Bytes public_key(const Bytes& private_key, unsigned form = SECP256K1_EC_COMPRESSED) {
  secp256k1_pubkey key;
  Bytes out(65);
  size_t len = out.size();
  if (secp256k1_ec_pubkey_create(context(), &key, private_key.data()) != 1) {
    return {};
  }
  secp256k1_ec_pubkey_serialize(context(), out.data(), &len, &key, form);
  out.resize(len);
  return out;
}

// By RFC 6979 with HMAC-SHA-256, the library's default, with low s.
inline Bytes sign(const Bytes& hash, const Bytes& private_key) {
  secp256k1_ecdsa_signature signature;
  Bytes out(72);
  size_t len = out.size();
  if (secp256k1_ecdsa_sign(context(), &signature, hash.data(), private_key.data(), nullptr, nullptr) != 1) {
    return {};
  }
  secp256k1_ecdsa_signature_serialize_der(context(), out.data(), &len, &signature);
  out.resize(len);
  return out;
}

// s is brought into the lower half first, since the library refuses high s.
inline bool verify(const Bytes& hash, const Bytes& der, const Bytes& compressed_key) {
  secp256k1_ecdsa_signature signature;
  secp256k1_pubkey key;
  if (der.empty() || secp256k1_ecdsa_signature_parse_der(context(), &signature, der.data(), der.size()) != 1 ||
      secp256k1_ec_pubkey_parse(context(), &key, compressed_key.data(), compressed_key.size()) != 1) {
    return false;
  }
  secp256k1_ecdsa_signature_normalize(context(), &signature, &signature);
  return secp256k1_ecdsa_verify(context(), &signature, hash.data(), &key) == 1;
}

// n - scalar, 32 bytes; the scalar is a valid private key.
inline Bytes negated(Bytes scalar) {
  return secp256k1_ec_seckey_negate(context(), scalar.data()) == 1 ? scalar : Bytes{};
}

}  // namespace norvel::crypto::reference
