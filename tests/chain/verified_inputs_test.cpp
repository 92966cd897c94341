#include "chain/verified_inputs.h"

#include <gtest/gtest.h>

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
  EXPECT_FALSE(verified.contains(tx, 0, TxOut(5, sample_key(2).pubkey_hash))) << "another script";
  tx.inputs[0].signature[9] ^= 1;
  tx.invalidate_cache();
  EXPECT_FALSE(verified.verify(tx, 0, coin)) << "another signature";
  EXPECT_FALSE(verified.contains(tx, 0, coin)) << "bad verdicts are not remembered";
  verified.remember(tx, 0, coin);
  EXPECT_TRUE(verified.verify(tx, 0, coin)) << "what is remembered is not checked";
}

TEST(VerifiedInputs, AFullTableKeepsTheNewest) {
  VerifiedInputs verified(64);
  size_t kept = 0;
  for (size_t i = 0; i < 1'000; ++i) {
    verified.remember(Transaction(), i, TxOut());
    ASSERT_TRUE(verified.contains(Transaction(), i, TxOut())) << i;
  }
  for (size_t i = 0; i < 1'000; ++i) {
    kept += verified.contains(Transaction(), i, TxOut()) ? 1 : 0;
  }
  EXPECT_EQ(kept, 64u);
}

}  // namespace
}  // namespace norvel
