// ECDSA_do_sign_ex(), which takes a nonce of the caller's, exists only for the
// EC_KEY objects that OpenSSL 3 deprecates. They are used in this file alone.
#define OPENSSL_API_COMPAT 0x10100000L

#include "crypto/signature.h"

#include <openssl/ecdsa.h>

#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>

#include "crypto/curve.h"
#include "crypto/keys.h"
#include "crypto/rfc6979.h"

namespace norvel::crypto {

namespace {

using EcKey = std::unique_ptr<EC_KEY, OpensslDeleter<EC_KEY_free>>;
using EcdsaSignature = std::unique_ptr<ECDSA_SIG, OpensslDeleter<ECDSA_SIG_free>>;

constexpr size_t kHashBytes = 32;

ByteView leftmost_bits(ByteView message) {
  return message.first(std::min(message.size(), kHashBytes));
}

// A key object on the curve with neither key set; nullptr on failure.
EcKey new_key(const Curve* curve) {
  EcKey key(curve == nullptr ? nullptr : EC_KEY_new());
  if (key != nullptr && EC_KEY_set_group(key.get(), curve->group) != 1) {
    return nullptr;
  }
  return key;
}

bool set_public_key_of(const Curve& curve, EC_KEY* key, const BIGNUM* scalar) {
  const EcPoint point(EC_POINT_new(curve.group));
  return point != nullptr && EC_POINT_mul(curve.group, point.get(), scalar, nullptr, nullptr, nullptr) == 1 &&
         EC_KEY_set_public_key(key, point.get()) == 1;
}

// Fills inverse = k^-1 mod n and r = (k * G).x mod n. Inverts by Fermat's little
// theorem, whose running time does not depend on k.
bool precompute(const Curve& curve, const BIGNUM* nonce, BIGNUM* inverse, BIGNUM* r) {
  const BigNumberContext context(BN_CTX_new());
  const EcPoint point(EC_POINT_new(curve.group));
  const BigNumber exponent(BN_dup(curve.order));
  return context != nullptr && point != nullptr && exponent != nullptr && BN_sub_word(exponent.get(), 2) == 1 &&
         BN_mod_exp_mont_consttime(inverse, nonce, exponent.get(), curve.order, context.get(), nullptr) == 1 &&
         EC_POINT_mul(curve.group, point.get(), nonce, nullptr, nullptr, context.get()) == 1 &&
         EC_POINT_get_affine_coordinates(curve.group, point.get(), r, nullptr, context.get()) == 1 &&
         BN_nnmod(r, r, curve.order, context.get()) == 1 && !BN_is_zero(r);
}

// Brings s into the lower half of the order; both forms are valid signatures.
bool make_low_s(const Curve& curve, ECDSA_SIG* signature) {
  const BIGNUM* s = ECDSA_SIG_get0_s(signature);
  if (BN_cmp(s, curve.half_order) <= 0) {
    return true;
  }
  BigNumber r(BN_dup(ECDSA_SIG_get0_r(signature)));
  BigNumber low_s(BN_new());
  if (r == nullptr || low_s == nullptr || BN_sub(low_s.get(), curve.order, s) != 1 ||
      ECDSA_SIG_set0(signature, r.get(), low_s.get()) != 1) {
    return false;
  }
  static_cast<void>(r.release());  // both belong to the signature now
  static_cast<void>(low_s.release());
  return true;
}

// The signature of `message` as DER; empty on failure.
Bytes sign_with_nonce(const Curve& curve, EC_KEY* key, ByteView message, const BIGNUM* inverse, const BIGNUM* r) {
  const ByteView hash = leftmost_bits(message);
  const EcdsaSignature signature(ECDSA_do_sign_ex(hash.data(), static_cast<int>(hash.size()), inverse, r, key));
  if (signature == nullptr || !make_low_s(curve, signature.get())) {
    return {};
  }
  Bytes der(kDerSignatureBytesMax);
  uint8_t* end = der.data();
  const int len = i2d_ECDSA_SIG(signature.get(), &end);
  der.resize(static_cast<size_t>(std::max(len, 0)));
  return der;
}

}  // namespace

Bytes sign_message_deterministic(ByteView message, const Bytes& private_key) {
  const ErrorQueueMark mark;
  if (private_key.size() != kPrivateKeyBytes) {
    throw std::runtime_error("sign_message_deterministic: invalid private key size");
  }
  const Curve* curve = secp256k1_curve();
  const EcKey key = new_key(curve);
  if (key == nullptr) {
    throw std::runtime_error("sign_message_deterministic: EC_KEY_new failed");
  }
  const BigNumber scalar = read_scalar(*curve, private_key);
  if (scalar == nullptr || EC_KEY_set_private_key(key.get(), scalar.get()) != 1) {
    throw std::runtime_error("sign_message_deterministic: failed to set private key");
  }
  if (!set_public_key_of(*curve, key.get(), scalar.get())) {
    throw std::runtime_error("sign_message_deterministic: derive public key failed");
  }
  const BigNumber nonce = rfc6979_nonce(*curve, message, private_key);
  const BigNumber inverse(BN_new());
  const BigNumber r(BN_new());
  if (nonce == nullptr || inverse == nullptr || r == nullptr ||
      !precompute(*curve, nonce.get(), inverse.get(), r.get())) {
    throw std::runtime_error("sign_message_deterministic: kinv/rp precompute failed");
  }
  Bytes signature = sign_with_nonce(*curve, key.get(), message, inverse.get(), r.get());
  if (signature.empty()) {
    throw std::runtime_error("sign_message_deterministic: ECDSA_do_sign_ex failed");
  }
  return signature;
}

Bytes sign_message(ByteView message, const Bytes& private_key) {
  return sign_message_deterministic(message, private_key);
}

bool verify_signature(ByteView message, ByteView signature, const Bytes& public_key) {
  const ErrorQueueMark mark;
  // Longer ones cannot be valid, and would be parsed in full.
  if (signature.empty() || signature.size() > kDerSignatureBytesMax) {
    return false;
  }
  const Curve* curve = secp256k1_curve();
  // Setting the group copies it, so each thread does it once.
  static thread_local EcKey key;
  if (key == nullptr && (key = new_key(curve)) == nullptr) {
    throw std::bad_alloc();  // says nothing about the signature
  }
  try {
    const EcPoint point = validate_ec_pubkey(*curve, public_key);
    if (EC_KEY_set_public_key(key.get(), point.get()) != 1) {
      return false;
    }
  } catch (const std::runtime_error&) {
    return false;
  }
  const ByteView hash = leftmost_bits(message);
  return ECDSA_verify(0, hash.data(), static_cast<int>(hash.size()), signature.data(),
                      static_cast<int>(signature.size()), key.get()) == 1;
}

}  // namespace norvel::crypto
