// Outputs spent with real keys, through verify_input_signature().

#include <gtest/gtest.h>

#include <functional>

#include "crypto/hash.h"
#include "crypto/keys.h"
#include "crypto/signature.h"
#include "script/interpreter.h"
#include "script/script.h"
#include "script/script_testing.h"
#include "script/sighash.h"

namespace norvel {
namespace {

constexpr uint32_t kRefundTime = 1000;

class Spending : public testing::Test {
 protected:
  struct Key {
    Bytes secret, pub, hash;
  };

  static Key make_key(uint8_t seed) {
    const Bytes secret(32, seed);
    const Bytes pub = crypto::derive_public_key(secret);
    return {secret, pub, crypto::hash160(pub)};
  }

  Spending() {
    tx_.locktime = kRefundTime;
    spent_.script_pubkey = Script::create_p2pkh_output(payee_.hash).bytes;
  }

  Bytes sign(const Key& key, const Script& script, uint8_t type = 1) const {
    const uint256 hash = SignatureHasher::compute_signature_hash(tx_, 0, script, type);
    Bytes signature = crypto::sign_message(hash.bytes(), key.secret);
    signature.push_back(type);
    return signature;
  }

  void pay_with(const Key& key) {
    const Bytes signature = sign(key, Script(spent_.locking_script()));
    tx_.inputs[0].signature = Bytes(signature.begin(), signature.end() - 1);
    tx_.inputs[0].pubkey = key.pub;
  }

  bool unlocks() const { return ScriptInterpreter::verify_input_signature(tx_, 0, spent_); }

  const Key payee_ = make_key(1);
  const Key stranger_ = make_key(2);
  Transaction tx_ = sample_transaction();
  TxOut spent_;
};

TEST_F(Spending, P2pkhTakesThePayeesKeyOnly) {
  pay_with(payee_);
  EXPECT_TRUE(unlocks());
  spent_ = TxOut(5, payee_.hash);
  EXPECT_TRUE(unlocks()) << "by the hash alone";
  EXPECT_FALSE(ScriptInterpreter::verify_input_signature(tx_, 1, spent_)) << "signed for the other input";
  EXPECT_FALSE(ScriptInterpreter::verify_input_signature(tx_, 2, spent_)) << "no such input";
  tx_.inputs[0].pubkey = stranger_.pub;
  EXPECT_FALSE(unlocks()) << "another key";
  pay_with(stranger_);
  EXPECT_FALSE(unlocks()) << "another key's own signature";
  pay_with(payee_);
  tx_.inputs[0].signature.push_back(1);
  EXPECT_FALSE(unlocks()) << "the field holds bare DER";
}

TEST_F(Spending, EverySignedFieldIsBound) {
  const struct {
    const char* label;
    std::function<void(Transaction&)> change;
  } rows[] = {
      {"type", [](Transaction& tx) { tx.type = TransactionType::TRANSFER; }},
      {"version", [](Transaction& tx) { ++tx.version; }},
      {"timestamp", [](Transaction& tx) { ++tx.timestamp; }},
      {"locktime", [](Transaction& tx) { ++tx.locktime; }},
      {"own txid", [](Transaction& tx) { tx.inputs[0].prevout.txid = uint256(1); }},
      {"own index", [](Transaction& tx) { ++tx.inputs[0].prevout.index; }},
      {"own sequence", [](Transaction& tx) { ++tx.inputs[0].sequence; }},
      {"other txid", [](Transaction& tx) { tx.inputs[1].prevout.txid = uint256(1); }},
      {"other index", [](Transaction& tx) { ++tx.inputs[1].prevout.index; }},
      {"other sequence", [](Transaction& tx) { ++tx.inputs[1].sequence; }},
      {"input count", [](Transaction& tx) { tx.inputs.emplace_back(); }},
      {"output value", [](Transaction& tx) { ++tx.outputs[0].value; }},
      {"output script", [](Transaction& tx) { tx.outputs[0].script_pubkey.back() ^= 1; }},
      {"output key hash", [](Transaction& tx) { tx.outputs[1].pubkey_hash.back() ^= 1; }},
      {"output order",
       [](Transaction& tx) {
         tx.outputs = {tx.outputs[1], tx.outputs[0]};
       }},
      {"output count", [](Transaction& tx) { tx.outputs.pop_back(); }},
      {"note", [](Transaction& tx) { tx.outputs[1].message->ciphertext.back() ^= 1; }},
      {"note removed", [](Transaction& tx) { tx.outputs[1].message.reset(); }},
  };
  pay_with(payee_);
  const Transaction signed_tx = tx_;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    tx_ = signed_tx;
    EXPECT_TRUE(unlocks());
    row.change(tx_);
    EXPECT_FALSE(unlocks());
  }
  tx_ = signed_tx;
  tx_.inputs[1].signature = tx_.inputs[1].pubkey = Bytes(3, 0);
  EXPECT_TRUE(unlocks()) << "how the other input is unlocked is not signed";
}

TEST_F(Spending, AnySignatureTypeVerifiesIfItWasSigned) {
  const Script locking(spent_.script_pubkey);
  for (const uint8_t type : Bytes{0, 1, 2, 255}) {
    SCOPED_TRACE(static_cast<int>(type));
    Bytes signature = sign(payee_, locking, type);
    EXPECT_TRUE(ScriptInterpreter::verify_script(tx_, 0, Script::create_p2pkh_input(signature, payee_.pub), locking));
    signature.back() ^= 4;
    EXPECT_FALSE(ScriptInterpreter::verify_script(tx_, 0, Script::create_p2pkh_input(signature, payee_.pub), locking));
  }
}

TEST_F(Spending, OneRunChecksSignaturesOfSeveralTypes) {
  const Script locking(hex("ac 88 ac"));  // check, compare with the 1 below, check
  for (const uint8_t second_type : Bytes{1, 2}) {
    Script unlocking;
    unlocking.push_data(sign(payee_, locking, second_type));
    unlocking.push_data(payee_.pub);
    unlocking.push_opcode(OpCode::OP_1);
    unlocking.push_data(sign(stranger_, locking));
    unlocking.push_data(stranger_.pub);
    EXPECT_TRUE(ScriptInterpreter::verify_script(tx_, 0, unlocking, locking)) << static_cast<int>(second_type);
  }
}

class HtlcSpending : public Spending {
 protected:
  HtlcSpending() {
    lock(kRefundTime);
    tx_.inputs[0].pubkey = {'H', 'T', 'L', 'C'};
  }

  void lock(uint32_t refund_time) {
    const Bytes payment_hash = crypto::sha256(preimage_).to_bytes();
    contract_ = Script::create_htlc_output(payee_.hash, refundee_.hash, payment_hash, refund_time);
    spent_.script_pubkey = contract_.bytes;
  }

  bool claims(const Key& key, const Bytes& preimage) {
    tx_.inputs[0].signature = Script::create_htlc_input_claim(sign(key, contract_), key.pub, preimage).bytes;
    return unlocks();
  }

  bool refunds(const Key& key) {
    tx_.inputs[0].signature = Script::create_htlc_input_refund(sign(key, contract_), key.pub).bytes;
    return unlocks();
  }

  const Bytes preimage_ = Bytes(40, 0x5a);
  const Key refundee_ = make_key(3);
  Script contract_;
};

TEST_F(HtlcSpending, ClaimNeedsThePreimageAndTheRecipient) {
  EXPECT_TRUE(claims(payee_, preimage_));
  EXPECT_FALSE(claims(payee_, Bytes(40, 0x5b)));
  EXPECT_FALSE(claims(payee_, crypto::sha256(preimage_).to_bytes()));
  EXPECT_FALSE(claims(payee_, {}));
  EXPECT_FALSE(claims(refundee_, preimage_));
  EXPECT_TRUE(claims(payee_, preimage_));
  tx_.inputs[0].pubkey = {'H', 'T', 'L'};
  EXPECT_FALSE(unlocks()) << "only the whole marker announces an unlocking script";
}

TEST_F(HtlcSpending, RefundNeedsTheTimeAndTheRefundKey) {
  EXPECT_TRUE(refunds(refundee_));
  EXPECT_FALSE(refunds(payee_));
  tx_.inputs[0].sequence = kSequenceFinal;
  EXPECT_FALSE(refunds(refundee_)) << "a final input has no lock time";
  tx_.inputs[0].sequence = kSequenceFinal - 1;
  tx_.locktime = kRefundTime - 1;
  EXPECT_FALSE(refunds(refundee_)) << "too early";
  EXPECT_TRUE(claims(payee_, preimage_)) << "a claim never waits";
}

TEST_F(HtlcSpending, RefundTimesFrom2To31AreReadWithTheirSign) {
  tx_.locktime = 0xffffffff;
  lock(0x7fffffff);
  EXPECT_TRUE(refunds(refundee_));
  lock(0x80000001);
  EXPECT_FALSE(refunds(refundee_)) << "negative, never refundable";
  tx_.locktime = 0;
  lock(0x80000000);
  EXPECT_TRUE(refunds(refundee_)) << "negative zero, refundable at once";
}

}  // namespace
}  // namespace norvel
