#include "consensus/treasury.h"

#include <string_view>

#include "crypto/address.h"
#include "crypto/hash.h"

namespace norvel::treasury {

namespace {

constexpr std::string_view kSeed = "NorvelCommonReserve_v1_Unowned_NoSigningKey_Seed77";
static_assert(kSeed.size() == 50);

struct Identity {
  Identity()
      : pubkey_hash(crypto::hash160(Bytes(kSeed.begin(), kSeed.end()))),
        address(crypto::hash160_to_address(pubkey_hash, 0)) {}

  Bytes pubkey_hash;
  std::string address;
};

const Identity& identity() {
  static const Identity instance;
  return instance;
}

}  // namespace

void ensure_initialized() {
  identity();
}

const Bytes& get_pubkey_hash() {
  return identity().pubkey_hash;
}

const std::string& get_address() {
  return identity().address;
}

}  // namespace norvel::treasury
