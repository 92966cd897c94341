#include "crypto/keys.h"

#include <openssl/core_names.h>

#include <stdexcept>

#include "crypto/curve.h"
#include "crypto/secure_zero.h"

namespace norvel::crypto {

std::pair<Bytes, Bytes> generate_keypair() {
  const ErrorQueueMark mark;
  const PrivateKeyHandle key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp256k1"));
  if (key == nullptr) {
    throw std::runtime_error("generate_keypair: EVP_PKEY_Q_keygen failed");
  }
  BIGNUM* value = nullptr;
  const int extracted = EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PRIV_KEY, &value);
  const BigNumber scalar(value);
  if (extracted != 1 || scalar == nullptr) {
    throw std::runtime_error("generate_keypair: could not extract private key");
  }
  Bytes private_key(kPrivateKeyBytes);
  WipeOnExit wipe_private_key(private_key);
  if (BN_bn2binpad(scalar.get(), private_key.data(), kPrivateKeyBytes) != kPrivateKeyBytes) {
    throw std::runtime_error("generate_keypair: BN_bn2binpad failed for private key");
  }
  Bytes public_key = derive_public_key(private_key);
  return {private_key, std::move(public_key)};
}

Bytes derive_public_key(const Bytes& private_key) {
  const ErrorQueueMark mark;
  if (private_key.size() != kPrivateKeyBytes) {
    throw std::runtime_error("derive_public_key: invalid private key size");
  }
  const Curve* curve = secp256k1_curve();
  if (curve == nullptr) {
    throw std::runtime_error("derive_public_key: EC_GROUP_new_by_curve_name failed");
  }
  const BigNumber scalar = read_scalar(*curve, private_key);
  if (scalar == nullptr) {
    throw std::runtime_error("derive_public_key: private key out of range");
  }
  const EcPoint point(EC_POINT_new(curve->group));
  if (point == nullptr || EC_POINT_mul(curve->group, point.get(), scalar.get(), nullptr, nullptr, nullptr) != 1) {
    throw std::runtime_error("derive_public_key: EC_POINT_mul failed");
  }
  Bytes public_key(kPublicKeyBytes);
  if (EC_POINT_point2oct(curve->group, point.get(), POINT_CONVERSION_COMPRESSED, public_key.data(), public_key.size(),
                         nullptr) != kPublicKeyBytes) {
    throw std::runtime_error("derive_public_key: EC_POINT_point2oct failed");
  }
  return public_key;
}

}  // namespace norvel::crypto
