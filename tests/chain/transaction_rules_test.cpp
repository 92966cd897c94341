// The rules of a transaction as scenes: a valid payment, one thing changed, the verdict.

#include "chain/transaction_rules.h"

#include <gtest/gtest.h>

#include <limits>

#include "script/interpreter.h"
#include "script/script.h"
#include "support/chain_builder.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();

// Two coins of 600 and 500 become outputs of 700 and 400.
struct Scene {
  Scene() : tx(pay(sample_key(1), {coin(0, 600), coin(1, 500)}, {700, 400})) {
    spent = {coin(0, 600), coin(1, 500), coin(2, 1)};
  }

  static std::pair<OutPoint, TxOut> coin(uint32_t index, int64_t value) {
    return {{uint256(uint64_t{5}), index}, TxOut(value, sample_key(1).pubkey_hash)};
  }

  void set_coins(int64_t first, int64_t second) {
    spent[tx.inputs[0].prevout].value = first;
    spent[tx.inputs[1].prevout].value = second;
  }

  void set_outputs(int64_t first, int64_t second) {
    tx.outputs[0].value = first;
    tx.outputs[1].value = second;
  }

  void pad_to(size_t size) {
    tx.outputs[0].pubkey_hash.clear();
    tx.outputs[0].script_pubkey.resize(100'000, 0x51);
    tx.outputs[0].script_pubkey.resize(100'000 + size - tx.serialize().size(), 0x51);
  }

  // "" when the transaction is valid; with `are_signed` false every input unlocks.
  std::string verdict(bool are_signed) {
    tx.invalidate_cache();
    std::string reason;
    const bool valid = validate_transaction(
        tx, spent,
        [&](const Transaction& checked, size_t input_index, const TxOut& output) {
          ++checks;
          return !are_signed || ScriptInterpreter::verify_input_signature(checked, input_index, output);
        },
        reason);
    EXPECT_EQ(valid, reason.empty());
    return reason;
  }

  Transaction tx;
  OutputsByOutpoint spent;
  size_t checks = 0;
};

TEST(TransactionRules, OneChangeDecidesBeforeAnySignatureIsChecked) {
  const struct SceneRow {
    const char* label;
    void (*change)(Scene&);
    const char* reason;
  } rows[] = {
      {"nothing", [](Scene&) {}, ""},
      {"a note", [](Scene& s) { s.tx.type = TransactionType::MESSAGE; }, ""},
      {"a contract", [](Scene& s) { s.tx.type = TransactionType::HTLC_FUNDING; }, ""},
      {"a distribution", [](Scene& s) { s.tx.type = TransactionType::TREASURY_DISTRIBUTION; },
       "Transaction type not allowed: 3"},
      {"a coinbase", [](Scene& s) { s.tx.type = TransactionType::COINBASE; }, "Transaction type not allowed: 255"},
      {"no type that is known", [](Scene& s) { s.tx.type = static_cast<TransactionType>(5); },
       "Transaction type not allowed: 5"},
      {"no inputs", [](Scene& s) { s.tx.inputs.clear(); }, "Transaction has no inputs"},
      {"no outputs", [](Scene& s) { s.tx.outputs.clear(); }, "Transaction has no outputs"},
      {"65,535 outputs", [](Scene& s) { s.tx.outputs.resize(65'535); }, ""},
      {"65,536 outputs", [](Scene& s) { s.tx.outputs.resize(65'536); }, "Transaction does not fit its byte format"},
      {"1,000,000 bytes", [](Scene& s) { s.pad_to(1'000'000); }, ""},
      {"1,000,001 bytes", [](Scene& s) { s.pad_to(1'000'001); }, "Transaction too large"},
      {"an output of nothing", [](Scene& s) { s.set_outputs(0, 1'100); }, ""},
      {"an output below", [](Scene& s) { s.set_outputs(700, -1); }, "Value out of range in output 1"},
      {"an output of all money", [](Scene& s) { s.set_coins(kMoneyMax, 0), s.set_outputs(kMoneyMax, 0); }, ""},
      {"an output above", [](Scene& s) { s.set_outputs(kMoneyMax + 1, 0); }, "Value out of range in output 0"},
      {"outputs above together", [](Scene& s) { s.set_outputs(kMoneyMax, 1); }, "Sum of outputs out of range"},
      {"a null input", [](Scene& s) { s.tx.inputs[1].prevout = OutPoint::null(); }, "Null outpoint in input 1"},
      {"an input twice", [](Scene& s) { s.tx.inputs.push_back(s.tx.inputs[0]); },
       "Output spent twice by one transaction"},
      {"an unknown input", [](Scene& s) { s.spent.erase(s.tx.inputs[1].prevout); },
       "Spent output not found for input 1"},
      {"a coin below", [](Scene& s) { s.set_coins(600, -1); }, "Value out of range in input 1"},
      {"a coin above", [](Scene& s) { s.set_coins(kInt64Max, 500); }, "Value out of range in input 0"},
      {"coins above together", [](Scene& s) { s.set_coins(kMoneyMax, 1); }, "Sum of inputs out of range"},
      {"one unit too much", [](Scene& s) { s.set_outputs(701, 400); }, "Outputs exceed inputs"},
  };
  for (const SceneRow& row : rows) {
    SCOPED_TRACE(row.label);
    Scene scene;
    row.change(scene);
    EXPECT_EQ(scene.verdict(false), row.reason);
    EXPECT_EQ(scene.checks, *row.reason == '\0' ? 2u : 0u);
  }
}

TEST(TransactionRules, EveryInputMustUnlockItsOutput) {
  Scene scene;
  EXPECT_EQ(scene.verdict(true), "");
  scene.tx.inputs[1].signature[9] ^= 1;
  EXPECT_EQ(scene.verdict(true), "Invalid signature for input 1");
  scene.spent[scene.tx.inputs[0].prevout].pubkey_hash = sample_key(2).pubkey_hash;
  EXPECT_EQ(scene.verdict(true), "Invalid signature for input 0");
}

TEST(TransactionRules, LockTimesAreHeightsOrTimes) {
  constexpr uint32_t kHeight = 100;
  constexpr uint64_t kTime = 1'600'000'000;
  const struct {
    const char* label;
    uint32_t locktime;
    bool want;
  } rows[] = {
      {"none", 0, true},
      {"the height before", 99, true},
      {"the height itself", 100, false},
      {"the largest height", 499'999'999, false},
      {"the smallest time", 500'000'000, true},
      {"the second before", 1'599'999'999, true},
      {"the second itself", 1'600'000'000, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Transaction tx = Scene().tx;
    tx.locktime = row.locktime;
    tx.inputs[1].sequence = 0;
    EXPECT_EQ(is_final(tx, kHeight, kTime), row.want);
    tx.inputs[1].sequence = 0xffffffff;
    EXPECT_TRUE(is_final(tx, kHeight, kTime)) << "every input final";
  }
}

bool same_meaning(const TxOut& a, const TxOut& b) {
  const auto parts = [](const TxOut& output) {
    const auto note = output.message.value_or(crypto::EncryptedMessage{9, {}, {}, {}});
    return std::tuple(output.value, output.locking_script(), output.get_pubkey_hash(), note.version, note.ciphertext,
                      note.nonce, note.ephemeral_pubkey);
  };
  return parts(a) == parts(b);
}

// Whether reading what was written gives the same transaction.
bool survives_writing(const Transaction& tx) {
  try {
    const Transaction read = Transaction::deserialize(tx.serialize());
    const auto same_input = [](const TxIn& a, const TxIn& b) {
      return std::tie(a.prevout, a.signature, a.pubkey, a.sequence) ==
             std::tie(b.prevout, b.signature, b.pubkey, b.sequence);
    };
    return std::equal(tx.inputs.begin(), tx.inputs.end(), read.inputs.begin(), read.inputs.end(), same_input) &&
           std::equal(tx.outputs.begin(), tx.outputs.end(), read.outputs.begin(), read.outputs.end(), same_meaning) &&
           tx.locktime == read.locktime;
  } catch (const std::runtime_error&) {
    return false;
  }
}

TEST(TransactionRules, FitsTheByteFormatWhenItSurvivesIt) {
  std::mt19937_64 random(11);
  size_t fitting = 0;
  for (int i = 0; i < 1'000; ++i) {
    const Transaction tx = random_transaction(random);
    ASSERT_EQ(fits_byte_format(tx), survives_writing(tx)) << i;
    fitting += fits_byte_format(tx) ? 1 : 0;
  }
  EXPECT_GT(fitting, 100u);
  EXPECT_LT(fitting, 900u);

  const auto note = [](size_t ciphertext, size_t nonce, size_t key, uint8_t version = 1) {
    return crypto::EncryptedMessage{version, Bytes(ciphertext), Bytes(nonce), Bytes(key)};
  };
  const Bytes hash(20, 7);
  const struct FormRow {
    const char* label;
    std::function<void(Transaction&)> change;
    bool want;
  } rows[] = {
      {"longest signature", [](Transaction& tx) { tx.inputs[0].signature.resize(65'535); }, true},
      {"longer", [](Transaction& tx) { tx.inputs[0].signature.resize(65'536); }, false},
      {"longest key", [](Transaction& tx) { tx.inputs[0].pubkey.resize(255); }, true},
      {"longer", [](Transaction& tx) { tx.inputs[0].pubkey.resize(256); }, false},
      {"65,536 inputs", [](Transaction& tx) { tx.inputs.resize(65'536); }, false},
      {"script alone", [&](Transaction& tx) { tx.outputs[0].script_pubkey = Script::create_p2pkh_output(hash).bytes,
                                              tx.outputs[0].pubkey_hash.clear(); }, true},
      {"both", [&](Transaction& tx) { tx.outputs[0].script_pubkey = Script::create_p2pkh_output(hash).bytes,
                                      tx.outputs[0].pubkey_hash = hash; }, true},
      {"another hash", [&](Transaction& tx) { tx.outputs[0].script_pubkey = Script::create_p2pkh_output(hash).bytes; },
       false},
      {"a hash beside another script", [&](Transaction& tx) { tx.outputs[0].script_pubkey = {0x51}; }, false},
      {"longest note", [&](Transaction& tx) { tx.outputs[0].message = note(65'535 - 50, 12, 33); }, true},
      {"longer", [&](Transaction& tx) { tx.outputs[0].message = note(65'535 - 49, 12, 33); }, false},
      {"old note", [&](Transaction& tx) { tx.outputs[0].message = note(9, 24, 33, 0); }, true},
      {"fields that shift", [&](Transaction& tx) { tx.outputs[0].message = note(9, 13, 32); }, false},
      {"bytes behind the note", [&](Transaction& tx) { tx.outputs[0].message = note(9, 12, 34); }, false},
      {"unknown note", [&](Transaction& tx) { tx.outputs[0].message = note(9, 12, 33, 2); }, false},
  };
  for (const FormRow& row : rows) {
    SCOPED_TRACE(row.label);
    Transaction tx = Scene().tx;
    row.change(tx);
    EXPECT_EQ(fits_byte_format(tx), row.want);
    EXPECT_EQ(survives_writing(tx), row.want);
  }
}

TEST(TransactionRules, FeesAreExactOrNothing) {
  Scene scene;
  scene.set_outputs(700, 399);
  EXPECT_EQ(transaction_fee(scene.tx, scene.spent), 1);
  scene.set_outputs(700, 401);
  EXPECT_EQ(transaction_fee(scene.tx, scene.spent), -1);
  scene.set_coins(kInt64Max, 1);
  EXPECT_EQ(transaction_fee(scene.tx, scene.spent), std::nullopt);
  scene.set_coins(0, 0);
  scene.set_outputs(kInt64Max, kInt64Max);
  EXPECT_EQ(transaction_fee(scene.tx, scene.spent), std::nullopt);
}

}  // namespace
}  // namespace norvel
