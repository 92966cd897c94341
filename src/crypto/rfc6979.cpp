#include "crypto/rfc6979.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <initializer_list>

#include "crypto/secure_zero.h"

namespace norvel::crypto {

namespace {

constexpr size_t kBlockBytes = 32;
using Block = std::array<uint8_t, kBlockBytes>;

// A context for HMAC-SHA-256; nullptr on failure. Duplicating a prepared one is
// cheaper than looking the algorithms up again; it holds no key.
MacContext new_hmac_sha256() {
  static const EVP_MAC_CTX* const prepared = [] {
    EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    EVP_MAC_CTX* context = mac == nullptr ? nullptr : EVP_MAC_CTX_new(mac);
    EVP_MAC_free(mac);
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                 OSSL_PARAM_construct_end()};
    if (context != nullptr && EVP_MAC_CTX_set_params(context, params) != 1) {
      EVP_MAC_CTX_free(context);
      context = nullptr;
    }
    return context;
  }();
  return MacContext(prepared == nullptr ? nullptr : EVP_MAC_CTX_dup(prepared));
}

// The generator of section 3.2: the state K and V, both wiped at the end.
class NonceGenerator {
 public:
  NonceGenerator() : mac_(new_hmac_sha256()) {
    key_.fill(0x00);
    value_.fill(0x01);
  }

  // Steps d to g: mixes the private key and the reduced hash into the state.
  bool seed(ByteView private_key, ByteView reduced_hash) {
    for (const uint8_t round : {uint8_t{0x00}, uint8_t{0x01}}) {
      if (!update_key({value_, {&round, 1}, private_key, reduced_hash}) || !update_value()) {
        return false;
      }
    }
    return true;
  }

  // Step h2: V = HMAC_K(V), the next candidate.
  bool update_value() { return hmac({value_}, value_); }

  // The end of step h3: leaves a rejected candidate behind.
  bool reject() {
    const uint8_t zero = 0x00;
    return update_key({value_, {&zero, 1}}) && update_value();
  }

  ByteView value() const { return value_; }

 private:
  bool update_key(std::initializer_list<ByteView> parts) { return hmac(parts, key_); }

  // HMAC_K of the parts; `out` may be the state itself.
  bool hmac(std::initializer_list<ByteView> parts, Block& out) {
    if (mac_ == nullptr || EVP_MAC_init(mac_.get(), key_.data(), key_.size(), nullptr) != 1) {
      return false;
    }
    for (const ByteView part : parts) {
      if (EVP_MAC_update(mac_.get(), part.data(), part.size()) != 1) {
        return false;
      }
    }
    size_t len = 0;
    return EVP_MAC_final(mac_.get(), out.data(), &len, out.size()) == 1 && len == out.size();
  }

  Block key_;
  Block value_;
  const WipeOnExit wipe_key_{key_};
  const WipeOnExit wipe_value_{value_};
  MacContext mac_;
};

// bits2octets of section 2.3.4: the leftmost 256 bits of the hash, modulo n.
bool reduce_hash(const Curve& curve, ByteView hash, Block& reduced) {
  const ByteView leftmost = hash.first(std::min(hash.size(), kBlockBytes));
  const BigNumber value(BN_bin2bn(leftmost.data(), static_cast<int>(leftmost.size()), nullptr));
  // The hash is below 2^256, which is less than 2n.
  if (value == nullptr ||
      (BN_cmp(value.get(), curve.order) >= 0 && BN_sub(value.get(), value.get(), curve.order) != 1)) {
    return false;
  }
  return BN_bn2binpad(value.get(), reduced.data(), kBlockBytes) == kBlockBytes;
}

}  // namespace

BigNumber rfc6979_nonce(const Curve& curve, ByteView message, ByteView private_key) {
  Block reduced;
  NonceGenerator generator;
  if (!reduce_hash(curve, message, reduced) || !generator.seed(private_key, reduced)) {
    return nullptr;
  }
  while (generator.update_value()) {
    if (BigNumber nonce = read_scalar(curve, generator.value())) {
      return nonce;
    }
    if (!generator.reject()) {
      break;
    }
  }
  return nullptr;
}

}  // namespace norvel::crypto
