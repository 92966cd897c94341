#include "consensus/treasury.h"

#include <gtest/gtest.h>

#include <string>

#include "crypto/address.h"
#include "crypto/hash.h"
#include "crypto/hex.h"

namespace norvel::treasury {
namespace {

TEST(TreasuryIdentity, FollowsFromTheSeed) {
  const std::string seed = "NorvelCommonReserve_v1_Unowned_NoSigningKey_Seed77";
  ensure_initialized();
  EXPECT_EQ(get_pubkey_hash(), crypto::hash160(Bytes(seed.begin(), seed.end())));
  EXPECT_EQ(crypto::address_to_hash160(get_address()), get_pubkey_hash());
  // Worked out from the seed with another library's digests.
  EXPECT_EQ(crypto::bytes_to_hex(get_pubkey_hash()), "f582d3f01298746841bf18263d4b8aa1346e6041");
  EXPECT_EQ(get_address(), "1PP9H5avwns2SUwYQ1Cw1mBkGvExfUwemi");
}

}  // namespace
}  // namespace norvel::treasury
