// The group secp256k1 (SEC 2) and the reading of points and scalars on it, for
// the .cpp files of this folder.
//
// Threads: safe from any thread; the group is only read after its creation.

#pragma once

#include "core/bytes.h"
#include "crypto/openssl_handles.h"

namespace norvel::crypto {

struct Curve {
  const EC_GROUP* group;
  const BIGNUM* order;       // n
  const BIGNUM* half_order;  // n / 2, rounded down
};

// The curve, made once per process and never freed; nullptr when OpenSSL does
// not offer it.
const Curve* secp256k1_curve();

// The point of a 33-byte compressed key. Throws std::runtime_error
// ("validate_ec_pubkey: ...") unless it is a point of the curve.
EcPoint validate_ec_pubkey(const Curve& curve, const Bytes& public_key);

// The scalar of a 32-byte private key, marked for constant-time arithmetic;
// nullptr unless it is in [1, n - 1].
BigNumber read_scalar(const Curve& curve, ByteView private_key);

}  // namespace norvel::crypto
