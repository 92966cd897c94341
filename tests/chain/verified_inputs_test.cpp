#include "chain/verified_inputs.h"

#include <gtest/gtest.h>

#include "script/script.h"
#include "support/chain_builder.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

TEST(VerifiedInputs, AVerdictHoldsForWhatItDependsOn) {
  const TxOut coin(5, sample_key(1).pubkey_hash);
  Transaction tx = pay(sample_key(1), {{{uint256(), 0}, coin}, {{uint256(), 1}, coin}}, {9});
  VerifiedInputs verified(64);
  EXPECT_FALSE(verified.contains(tx, 0, coin));
  EXPECT_TRUE(verified.verify(tx, 0, coin));
  EXPECT_TRUE(verified.contains(tx, 0, coin));
  EXPECT_FALSE(verified.contains(tx, 1, coin)) << "another input";
  TxOut same = coin;
  same.script_pubkey = Script::create_p2pkh_output(coin.pubkey_hash).bytes;
  EXPECT_TRUE(verified.contains(tx, 0, same)) << "its script written out";
  const TxOut other(5, sample_key(2).pubkey_hash);
  EXPECT_FALSE(verified.contains(tx, 0, other)) << "another script";
  tx.inputs[0].signature[9] ^= 1;
  tx.invalidate_cache();
  EXPECT_FALSE(verified.contains(tx, 0, coin)) << "another signature";

  EXPECT_FALSE(verified.verify(tx, 0, coin));
  EXPECT_FALSE(verified.contains(tx, 0, coin)) << "bad verdicts are not remembered";
  verified.remember(tx, 0, coin);
  EXPECT_TRUE(verified.verify(tx, 0, coin)) << "what is remembered is not checked";
  EXPECT_FALSE(VerifiedInputs(64).verify(tx, 0, coin));
}

TEST(VerifiedInputs, AFullTableKeepsTheNewest) {
  const TxOut coin;
  const Transaction tx;
  VerifiedInputs verified(64);
  for (size_t i = 0; i < 1'000; ++i) {
    verified.remember(tx, i, coin);
    ASSERT_TRUE(verified.contains(tx, i, coin)) << i;
  }
  size_t kept = 0;
  for (size_t i = 0; i < 1'000; ++i) {
    kept += verified.contains(tx, i, coin) ? 1 : 0;
  }
  EXPECT_EQ(kept, 64u);
}

}  // namespace
}  // namespace norvel
