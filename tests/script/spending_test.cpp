// Outputs spent with real keys.

#include <gtest/gtest.h>

#include "crypto/hash.h"
#include "crypto/signature.h"
#include "script/interpreter.h"
#include "script/script.h"
#include "script/script_testing.h"
#include "script/sighash.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

class Spending : public testing::Test {
 protected:
  Bytes sign(const SampleKey& key, const Script& script, uint8_t type = 1) const {
    const uint256 hash = SignatureHasher::compute_signature_hash(tx_, 0, script, type);
    return join({crypto::sign_message(hash.bytes(), key.private_key), {type}});
  }

  bool unlocks(size_t input_index = 0) const {
    return ScriptInterpreter::verify_input_signature(tx_, input_index, spent_);
  }

  bool pays_with(const SampleKey& key) {
    tx_.inputs[0].signature = sign(key, Script(spent_.locking_script()));
    tx_.inputs[0].signature.pop_back();
    tx_.inputs[0].pubkey = key.pubkey;
    return unlocks();
  }

  const SampleKey payee_ = sample_key(1);
  const SampleKey other_ = sample_key(2);
  Transaction tx_ = sample_transaction();
  TxOut spent_{5, payee_.pubkey_hash};
};

TEST_F(Spending, P2pkhTakesThePayeesKeyOnly) {
  EXPECT_FALSE(pays_with(other_)) << "another key's own signature";
  EXPECT_TRUE(pays_with(payee_));
  spent_.script_pubkey = Script::create_p2pkh_output(payee_.pubkey_hash).bytes;
  EXPECT_TRUE(unlocks()) << "by the script alone";
  tx_.inputs[1].signature = tx_.inputs[0].signature;
  tx_.inputs[1].pubkey = payee_.pubkey;
  EXPECT_TRUE(unlocks()) << "how the other input is unlocked is not signed";
  EXPECT_FALSE(unlocks(1)) << "signed for the other input";
  EXPECT_FALSE(unlocks(2)) << "no such input";
  ++tx_.outputs[0].value;
  EXPECT_FALSE(unlocks()) << "signed for another amount";
  EXPECT_TRUE(pays_with(payee_));
  tx_.inputs[0].signature.push_back(1);
  EXPECT_FALSE(unlocks()) << "the field holds bare DER";
}

TEST_F(Spending, OneRunChecksSignaturesOfSeveralTypes) {
  const Script locking(hex("ac 88 ac"));  // check, compare with the 1 below, check
  for (const uint8_t second_type : Bytes{1, 0, 255}) {
    Script unlocking = Script::create_p2pkh_input(sign(payee_, locking, second_type), payee_.pubkey);
    unlocking.push_opcode(OpCode::OP_1);
    append(unlocking.bytes, Script::create_p2pkh_input(sign(other_, locking), other_.pubkey).bytes);
    EXPECT_TRUE(ScriptInterpreter::verify_script(tx_, 0, unlocking, locking)) << int{second_type};
  }
}

TEST_F(Spending, ContractIsClaimedWithThePreimageOrRefundedInTime) {
  const Bytes preimage(40, 0x5a);
  const Script contract = Script::create_htlc_output(payee_.pubkey_hash, other_.pubkey_hash,
                                                     crypto::sha256(preimage).to_bytes(), tx_.locktime);
  spent_.script_pubkey = contract.bytes;
  const auto unlocks_with = [&](const SampleKey& key, const Bytes& choice) {
    tx_.inputs[0].pubkey = {'H', 'T', 'L', 'C'};
    tx_.inputs[0].signature = join({Script::create_p2pkh_input(sign(key, contract), key.pubkey).bytes, choice});
    return unlocks();
  };
  const Bytes claim = join({hex("28"), preimage, hex("51")});
  const Bytes refund = hex("00");
  EXPECT_FALSE(unlocks_with(payee_, join({hex("28"), Bytes(40, 0x5b), hex("51")})));
  EXPECT_FALSE(unlocks_with(other_, claim));
  EXPECT_FALSE(unlocks_with(payee_, refund));
  EXPECT_TRUE(unlocks_with(other_, refund));
  tx_.inputs[0].pubkey.pop_back();
  EXPECT_FALSE(unlocks()) << "only the whole marker announces an unlocking script";
  --tx_.locktime;
  EXPECT_FALSE(unlocks_with(other_, refund)) << "too early";
  EXPECT_TRUE(unlocks_with(payee_, claim)) << "a claim never waits";
}

}  // namespace
}  // namespace norvel
