// The rules of a transaction as scenes: a valid payment, one thing changed, the verdict.

#include "chain/transaction_rules.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "script/interpreter.h"
#include "support/chain_builder.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr int64_t kMost = std::numeric_limits<int64_t>::max();

std::pair<OutPoint, TxOut> coin(uint32_t index, int64_t value) {
  return {{uint256(uint64_t{5}), index}, TxOut(value, sample_key(1).pubkey_hash)};
}

// Two coins of 600 and 500 become outputs of 700 and 400.
struct SpendScene {
  void repeat_input() { tx.inputs.push_back(tx.inputs[0]); }

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

  Transaction tx = pay(sample_key(1), {coin(0, 600), coin(1, 500)}, {700, 400});
  OutputsByOutpoint spent = {coin(0, 600), coin(1, 500), coin(2, 1)};
  size_t checks = 0;
};

TEST(TransactionRules, OneChangeDecidesBeforeAnySignatureIsChecked) {
  const std::tuple<const char*, void (*)(SpendScene&), const char*> rows[] = {
      {"nothing", [](SpendScene&) {}, ""},
      {"a note", [](SpendScene& s) { s.tx.type = TransactionType::MESSAGE; }, ""},
      {"a contract", [](SpendScene& s) { s.tx.type = TransactionType::HTLC_FUNDING; }, ""},
      {"a distribution", [](SpendScene& s) { s.tx.type = TransactionType{3}; }, "Transaction type not allowed: 3"},
      {"a coinbase", [](SpendScene& s) { s.tx.type = TransactionType{255}; }, "Transaction type not allowed: 255"},
      {"an unknown type", [](SpendScene& s) { s.tx.type = TransactionType{5}; }, "Transaction type not allowed: 5"},
      {"no inputs", [](SpendScene& s) { s.tx.inputs.clear(); }, "Transaction has no inputs"},
      {"no outputs", [](SpendScene& s) { s.tx.outputs.clear(); }, "Transaction has no outputs"},
      {"65,535 outputs", [](SpendScene& s) { s.tx.outputs.resize(65'535); }, ""},
      {"one more", [](SpendScene& s) { s.tx.outputs.resize(65'536); }, "Transaction does not fit its byte format"},
      {"1,000,000 bytes", [](SpendScene& s) { s.pad_to(1'000'000); }, ""},
      {"1,000,001 bytes", [](SpendScene& s) { s.pad_to(1'000'001); }, "Transaction too large"},
      {"an output of nothing", [](SpendScene& s) { s.set_outputs(0, 1'100); }, ""},
      {"a unit below", [](SpendScene& s) { s.set_outputs(700, -1); }, "Value out of range in output 1"},
      {"an output of all money", [](SpendScene& s) { s.set_coins(kMoneyMax, 0), s.set_outputs(kMoneyMax, 0); }, ""},
      {"a unit above", [](SpendScene& s) { s.set_outputs(kMoneyMax + 1, 0); }, "Value out of range in output 0"},
      {"a unit above together", [](SpendScene& s) { s.set_outputs(kMoneyMax, 1); }, "Sum of outputs out of range"},
      {"outputs that wrap", [](SpendScene& s) { s.set_outputs(kMost, kMost); }, "Value out of range in output 0"},
      {"the least output", [](SpendScene& s) { s.set_outputs(1'100, -kMost - 1); }, "Value out of range in output 1"},
      {"coins that wrap", [](SpendScene& s) { s.set_coins(kMost, kMost); }, "Value out of range in input 0"},
      {"a null input", [](SpendScene& s) { s.tx.inputs[1].prevout = OutPoint::null(); }, "Null outpoint in input 1"},
      {"an input twice", [](SpendScene& s) { s.repeat_input(); }, "Output spent twice by one transaction"},
      {"a lost coin", [](SpendScene& s) { s.spent.erase(coin(1, 0).first); }, "Spent output not found for input 1"},
      {"a coin below", [](SpendScene& s) { s.set_coins(600, -1); }, "Value out of range in input 1"},
      {"a coin above", [](SpendScene& s) { s.set_coins(kMoneyMax + 1, 0); }, "Value out of range in input 0"},
      {"coins above together", [](SpendScene& s) { s.set_coins(kMoneyMax, 1); }, "Sum of inputs out of range"},
      {"one unit too much", [](SpendScene& s) { s.set_outputs(701, 400); }, "Outputs exceed inputs"},
  };
  for (const auto& [label, change, want] : rows) {
    SCOPED_TRACE(label);
    SpendScene scene;
    change(scene);
    EXPECT_EQ(scene.verdict(false), want);
    EXPECT_EQ(scene.checks, *want == '\0' ? 2u : 0u);
  }
}

TEST(TransactionRules, EveryInputMustUnlockItsOutput) {
  SpendScene scene;
  EXPECT_EQ(scene.verdict(true), "");
  scene.tx.inputs[1].signature[9] ^= 1;
  EXPECT_EQ(scene.verdict(true), "Invalid signature for input 1");
}

TEST(TransactionRules, LockTimesAreHeightsOrTimes) {
  constexpr uint32_t kTime = 1'600'000'000;
  const std::pair<uint32_t, bool> rows[] = {{0, true},           {99, true},        {100, false},  {499'999'999, false},
                                            {500'000'000, true}, {kTime - 1, true}, {kTime, false}};
  for (const auto& [locktime, want] : rows) {
    Transaction tx;
    tx.locktime = locktime;
    tx.inputs.resize(2);
    EXPECT_TRUE(is_final(tx, 100, kTime)) << "every input final";
    tx.inputs[1].sequence = 0;
    EXPECT_EQ(is_final(tx, 100, kTime), want) << locktime;
  }
}

// What a transaction says in fields of varying length.
std::vector<Bytes> contents(const Transaction& tx) {
  std::vector<Bytes> fields;
  for (const TxIn& input : tx.inputs) {
    fields.insert(fields.end(), {input.signature, input.pubkey});
  }
  for (const TxOut& output : tx.outputs) {
    const auto [version, text, nonce, key] = output.message.value_or(crypto::EncryptedMessage());
    fields.insert(fields.end(), {output.locking_script(), output.get_pubkey_hash(), {version}, text, nonce, key});
  }
  return fields;
}

bool survives_writing(const Transaction& tx) {
  std::vector<Bytes> read;
  const auto error = runtime_error_of([&] { read = contents(Transaction::deserialize(tx.serialize())); });
  return !error && read == contents(tx);
}

TEST(TransactionRules, FitsTheByteFormatWhenItSurvivesIt) {
  std::mt19937_64 random(11);
  for (int i = 0; i < 1'000; ++i) {
    const Transaction tx = random_transaction(random);
    ASSERT_EQ(fits_byte_format(tx), survives_writing(tx)) << i;
  }
  using Note = crypto::EncryptedMessage;
  const std::pair<void (*)(TxIn&, TxOut&), bool> rows[] = {
      {[](TxIn& in, TxOut&) { in.signature.resize(65'535); }, true},
      {[](TxIn& in, TxOut&) { in.signature.resize(65'536); }, false},
      {[](TxIn& in, TxOut&) { in.pubkey.resize(255); }, true},
      {[](TxIn& in, TxOut&) { in.pubkey.resize(256); }, false},
      {[](TxIn&, TxOut& out) { out.script_pubkey = out.locking_script(); }, true},  // beside its hash
      {[](TxIn&, TxOut& out) { out.script_pubkey = out.locking_script(), out.pubkey_hash.clear(); }, true},
      {[](TxIn&, TxOut& out) {
         out.message = Note{1, Bytes(65'535 - 50), Bytes(12), Bytes(33)};
       },
       true},
      {[](TxIn&, TxOut& out) {
         out.message = Note{1, Bytes(65'535 - 49), Bytes(12), Bytes(33)};
       },
       false},
      {[](TxIn&, TxOut& out) {
         out.message = Note{1, Bytes(9), Bytes(13), Bytes(32)};
       },
       false},
      {[](TxIn&, TxOut& out) {
         out.message = Note{2, Bytes(9), Bytes(12), Bytes(33)};
       },
       false},
  };
  size_t number = 0;
  for (const auto& [change, want] : rows) {
    SCOPED_TRACE(number++);
    Transaction tx = SpendScene().tx;
    change(tx.inputs[0], tx.outputs[0]);
    EXPECT_EQ(fits_byte_format(tx), want);
    EXPECT_EQ(survives_writing(tx), want);
  }
}

}  // namespace
}  // namespace norvel
