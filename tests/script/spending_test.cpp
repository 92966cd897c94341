// Outputs spent with real keys, and what is signed for that.

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

// The preimage of input 1 with script code 51 67 88 is written out by hand.
TEST(SignatureHasher, HashesThePreimageFieldByField) {
  const Bytes preimage = join({
      hex("02 1817161514131211 04030201"),  // type, timestamp, version
      hex("02"),                            // inputs
      Bytes(32, 0xa0), hex("24232221 00 34333231"), Bytes(32, 0xb0), hex("44434241 03 516788 54535251"),
      hex("02"),  // outputs
      hex("6867666564636261 02 5152 00"), hex("feffffffffffffff 19 76a914"), Bytes(20, 0x99), hex("88ac 01 4600"),
      hex("01 00000014"), Bytes(20, 0x77), Bytes(12, 0x66), Bytes(33, 0x55),  // the note
      hex("74737271"),                                                        // locktime
  });
  const Script script_code(hex("51 67 88"));
  EXPECT_EQ(SignatureHasher::serialize_for_signature(sample_transaction(), 1, script_code, 1), preimage);
  for (const uint8_t type : Bytes{0x00, 0x01, 0xff}) {
    EXPECT_EQ(SignatureHasher::compute_signature_hash(sample_transaction(), 1, script_code, type),
              crypto::hash256(join({preimage, {type, 0, 0, 0}})))
        << int{type};
  }
  EXPECT_EQ(runtime_error_of([&] { SignatureHasher::compute_signature_hash(sample_transaction(), 2, script_code, 1); }),
            "Input index out of range");
}

TEST(SignatureHasher, CountsAreCompact) {
  Transaction tx;
  tx.inputs.resize(253);
  tx.outputs.resize(65'536);
  const Bytes preimage = SignatureHasher::serialize_for_signature(tx, SIZE_MAX, Script(), 1);
  const auto inputs = preimage.begin() + 1 + 8 + 4;
  const auto outputs = inputs + 3 + 253 * (36 + 1 + 4);
  EXPECT_EQ(Bytes(inputs, inputs + 3), hex("fd fd 00"));
  EXPECT_EQ(Bytes(outputs, outputs + 5), hex("fe 00 00 01 00"));
  EXPECT_EQ(preimage.end() - outputs, 5 + 65'536 * (8 + 1 + 1) + 4);
}

}  // namespace
}  // namespace norvel
