#include "crypto/curve.h"

#include <openssl/obj_mac.h>

#include <optional>
#include <stdexcept>

#include "crypto/keys.h"

namespace norvel::crypto {

namespace {

std::optional<Curve> make_curve() {
  EC_GROUP* group = EC_GROUP_new_by_curve_name(NID_secp256k1);
  BigNumber half_order(BN_new());
  if (group == nullptr || half_order == nullptr || BN_rshift1(half_order.get(), EC_GROUP_get0_order(group)) != 1) {
    EC_GROUP_free(group);
    return std::nullopt;
  }
  return Curve{group, EC_GROUP_get0_order(group), half_order.release()};
}

}  // namespace

const Curve* secp256k1_curve() {
  static const std::optional<Curve> curve = make_curve();
  return curve ? &*curve : nullptr;
}

EcPoint validate_ec_pubkey(const Curve& curve, const Bytes& public_key) {
  if (public_key.size() != kPublicKeyBytes) {
    throw std::runtime_error("validate_ec_pubkey: expected 33-byte compressed key");
  }
  EcPoint point(EC_POINT_new(curve.group));
  if (point == nullptr ||
      EC_POINT_oct2point(curve.group, point.get(), public_key.data(), public_key.size(), nullptr) != 1) {
    throw std::runtime_error("validate_ec_pubkey: EC_POINT_oct2point failed — key not on curve");
  }
  if (EC_POINT_is_at_infinity(curve.group, point.get()) != 0) {
    throw std::runtime_error("validate_ec_pubkey: point at infinity");
  }
  if (EC_POINT_is_on_curve(curve.group, point.get(), nullptr) != 1) {
    throw std::runtime_error("validate_ec_pubkey: point not on curve");
  }
  return point;
}

BigNumber read_scalar(const Curve& curve, ByteView private_key) {
  BigNumber scalar(BN_bin2bn(private_key.data(), static_cast<int>(private_key.size()), nullptr));
  if (scalar == nullptr || BN_is_zero(scalar.get()) || BN_cmp(scalar.get(), curve.order) >= 0) {
    return nullptr;
  }
  BN_set_flags(scalar.get(), BN_FLG_CONSTTIME);
  return scalar;
}

}  // namespace norvel::crypto
