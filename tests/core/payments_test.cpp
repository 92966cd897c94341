// The constructors of transactions, their signers, and the check of all
// signatures.

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>

#include "consensus/treasury.h"
#include "core/clock.h"
#include "core/transaction.h"
#include "crypto/hash.h"
#include "crypto/hex.h"
#include "script/script.h"
#include "support/captured_stderr.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr const char kNoKey[] = "Recipient public key required for encrypted messages";
constexpr int64_t kFeeOfOneByteNote = 10'100 + 100 * (1 + 16 + 12 + 33);

const SampleKey& alice() {
  static const SampleKey key = sample_key(1);
  return key;
}

const SampleKey& bob() {
  static const SampleKey key = sample_key(2);
  return key;
}

OutPoint outpoint(uint8_t number) {
  return {uint256(uint64_t{number}), number};
}

// Outputs of these values to alice, numbered from 0.
SpendableOutputs spendable(std::initializer_list<int64_t> values) {
  SpendableOutputs outputs;
  for (const int64_t value : values) {
    outputs.emplace_back(outpoint(static_cast<uint8_t>(outputs.size())), TxOut(value, alice().pubkey_hash));
  }
  return outputs;
}

std::map<OutPoint, TxOut> as_map(const SpendableOutputs& outputs) {
  return {outputs.begin(), outputs.end()};
}

TEST(CoinbaseTx, FieldsAndTreasuryShare) {
  const struct {
    int64_t reward;
    int64_t fees;
    std::vector<int64_t> values;
  } rows[] = {
      {800'000'000, 0, {800'000'000}}, {5, 19'999, {5}},  {5, 20'000, {5, 10'000}},       {5, 20'001, {5, 10'000}},
      {-3, 20'002, {-3, 10'001}},      {0, -30'000, {0}}, {kMax, kMax, {kMax, kMax / 2}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fees);
    const Transaction tx = Transaction::create_coinbase_tx(alice().address, row.reward, row.fees, 0, "");
    ASSERT_EQ(tx.outputs.size(), row.values.size());
    for (size_t i = 0; i < row.values.size(); ++i) {
      const Bytes& payee = i == 0 ? alice().pubkey_hash : treasury::get_pubkey_hash();
      EXPECT_EQ(tx.outputs[i].value, row.values[i]);
      EXPECT_EQ(tx.outputs[i].pubkey_hash, payee);
      EXPECT_EQ(tx.outputs[i].script_pubkey, Script::create_p2pkh_output(payee).bytes);
      EXPECT_FALSE(tx.outputs[i].message);
    }
  }
}

TEST(CoinbaseTx, CarriesHeightMessageAndTime) {
  const auto input_hex = [](const Transaction& tx) { return crypto::bytes_to_hex(tx.inputs.at(0).serialize()); };
  const std::string null_outpoint = std::string(64, '0') + "ffffffff";
  const Transaction genesis = Transaction::create_coinbase_tx(alice().address, 1, 0, 0, "");
  EXPECT_EQ(input_hex(genesis), null_outpoint + "0400" + "00000000" + "00" + "ffffffff");
  EXPECT_EQ(genesis.timestamp, 1'704'067'200u);
  EXPECT_EQ(crypto::bytes_to_hex(genesis.serialize()).substr(0, 10), "ff01000000");
  EXPECT_EQ(genesis.locktime, 0u);

  const uint64_t before = unix_time_seconds();
  const Transaction later = Transaction::create_coinbase_tx(alice().address, 1, 0, 0x01020304, "ab");
  EXPECT_EQ(input_hex(later), null_outpoint + "0600" + "040302016162" + "00" + "ffffffff");
  EXPECT_GE(Transaction::create_coinbase_tx(alice().address, 1, 0, 1, "").timestamp, before);
  EXPECT_LE(later.timestamp, unix_time_seconds());

  EXPECT_EQ(runtime_error_of([] { Transaction::create_coinbase_tx("1abc", 1, 0, 0, ""); }),
            "address_to_hash160: invalid address length");
}

TEST(StandardTx, SelectsTheLargestAndReturnsTheChange) {
  const struct {
    const char* label;
    int64_t amount;
    int64_t fee;
    SpendableOutputs outputs;
    std::vector<uint8_t> inputs;  // outpoint numbers, in order
    int64_t change;
    const char* error;
  } rows[] = {
      {"exact", 900, 100, spendable({1'000}), {0}, 0, ""},
      {"one unit short", 900, 101, spendable({1'000}), {}, 0, "Insufficient funds"},
      {"change of 999 joins the fee", 1, 0, spendable({1'000}), {0}, 0, ""},
      {"change of 1,000 comes back", 1, 0, spendable({1'001}), {0}, 1'000, ""},
      {"largest first, no more than needed", 60, 0, spendable({10, 50, 30, 40}), {1, 3}, 0, ""},
      {"equal values in their order", 15, 0, spendable({10, 10, 10}), {0, 1}, 0, ""},
      {"worthless and negative outputs do not help", 20, 0, spendable({10, 0, -10, 9}), {}, 0, "Insufficient funds"},
      {"nothing to spend", 1, 0, {}, {}, 0, "Insufficient funds"},
      {"values that overflow together", kMax, 0, spendable({kMax - 1, kMax - 1}), {0, 1}, kMax - 2, ""},
      {"one outpoint listed twice", 15, 0, {spendable({10})[0], spendable({10})[0]}, {}, 0, "Insufficient funds"},
      {"the null outpoint", 5, 0, {{OutPoint::null(), TxOut(10, {})}}, {}, 0, "Insufficient funds"},
      {"nothing to pay", 0, 0, spendable({5'000}), {0}, 5'000, ""},
      {"negative amount", -1, 10, spendable({100}), {}, 0, "Invalid amount"},
      {"negative fee", 10, -1, spendable({100}), {}, 0, "Invalid amount"},
      {"amount and fee overflow", kMax, 1, spendable({kMax}), {}, 0, "Invalid amount"},
      {"amount and fee just fit", kMax - 1, 1, spendable({kMax}), {0}, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::string error = "stale";
    const auto tx = Transaction::create_standard_tx(alice().private_key, alice().pubkey, bob().address, row.amount,
                                                    row.outputs, row.fee, "", {}, error);
    EXPECT_EQ(error, row.error);
    ASSERT_EQ(tx.has_value(), error.empty());
    if (!tx) {
      continue;
    }
    EXPECT_EQ(tx->type, TransactionType::TRANSFER);
    ASSERT_EQ(tx->inputs.size(), row.inputs.size());
    for (size_t i = 0; i < row.inputs.size(); ++i) {
      EXPECT_EQ(tx->inputs[i].prevout, outpoint(row.inputs[i]));
    }
    ASSERT_EQ(tx->outputs.size(), row.change == 0 ? 1u : 2u);
    EXPECT_EQ(tx->outputs[0].value, row.amount);
    EXPECT_EQ(tx->outputs[0].pubkey_hash, bob().pubkey_hash);
    if (row.change != 0) {
      EXPECT_EQ(tx->outputs[1].value, row.change);
      EXPECT_EQ(tx->outputs[1].pubkey_hash, alice().pubkey_hash);
    }
    EXPECT_TRUE(tx->verify_all_signatures(as_map(row.outputs)));
  }
}

TEST(StandardTx, RefusesKeysThatDoNotBelongTogether) {
  std::string error;
  EXPECT_FALSE(Transaction::create_standard_tx(alice().private_key, bob().pubkey, bob().address, 1, spendable({1'000}),
                                               0, "", {}, error));
  EXPECT_EQ(error, "Public key does not match private key");
}

TEST(StandardTx, CarriesAnEncryptedNote) {
  const struct {
    const char* label;
    size_t bytes;
    int64_t fee;
    Bytes recipient_key;
    const char* error;
  } rows[] = {
      {"exact fee", 1, kFeeOfOneByteNote, bob().pubkey, ""},
      {"fee one unit short", 1, kFeeOfOneByteNote - 1, bob().pubkey, "Insufficient fee input value"},
      {"longest note", 1'024, 200'000, bob().pubkey, ""},
      {"one byte more", 1'025, 200'000, bob().pubkey, "Message exceeds maximum size (1024 bytes)"},
      {"no key", 1, 200'000, {}, kNoKey},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const std::string note(row.bytes, 'n');
    const SpendableOutputs outputs = spendable({300'000});
    std::string error;
    const auto tx = Transaction::create_standard_tx(alice().private_key, alice().pubkey, bob().address, 5, outputs,
                                                    row.fee, note, row.recipient_key, error);
    EXPECT_EQ(error, row.error);
    ASSERT_EQ(tx.has_value(), error.empty());
    if (tx) {
      EXPECT_TRUE(tx->verify_all_signatures(as_map(outputs)));
      const Transaction received = Transaction::deserialize(tx->serialize());
      EXPECT_EQ(received.decrypt_messages(bob().private_key), std::vector<std::string>{note});
      EXPECT_EQ(received.decrypt_messages(alice().private_key), std::vector<std::string>{""});
    }
  }
}

TEST(MessageTx, PaysNothingAndReturnsTheRest) {
  constexpr int64_t kFee = kFeeOfOneByteNote;
  const struct {
    const char* label;
    const SampleKey& to;
    std::string note;
    int64_t value;
    int64_t fee;
    Bytes recipient_key;
    size_t output_count;
    const char* error;
  } rows[] = {
      {"to a given key, rest below dust", bob(), "n", kFee + 999, kFee, bob().pubkey, 1, ""},
      {"to a given key, rest comes back", bob(), "n", kFee + 1'000, kFee, bob().pubkey, 2, ""},
      {"to oneself without a key", alice(), "n", kFee, kFee, {}, 1, ""},
      {"to another without a key", bob(), "n", kFee, kFee, {}, 0, kNoKey},
      {"empty", bob(), "", kFee, kFee, bob().pubkey, 0, "Message cannot be empty"},
      {"too long", bob(), std::string(1'025, 'n'), 200'000, 200'000, bob().pubkey, 0,
       "Message exceeds maximum size (1024 bytes)"},
      {"fee above the input", bob(), "n", kFee, kFee + 1, bob().pubkey, 0, "Insufficient fee input value"},
      {"fee below the note's", bob(), "n", kFee, kFee - 1, bob().pubkey, 0, "Insufficient fee input value"},
      {"negative fee", bob(), "n", kFee, -1, bob().pubkey, 0, "Invalid amount"},
      {"negative value", bob(), "n", -1, -1, bob().pubkey, 0, "Invalid amount"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::string error;
    const auto tx = Transaction::create_message_tx(alice().private_key, alice().pubkey, row.to.address, row.note,
                                                   outpoint(7), row.value, row.fee, error, row.recipient_key);
    EXPECT_EQ(error, row.error);
    ASSERT_EQ(tx.has_value(), error.empty());
    if (tx) {
      EXPECT_EQ(tx->type, TransactionType::MESSAGE);
      ASSERT_EQ(tx->outputs.size(), row.output_count);
      EXPECT_EQ(tx->outputs[0].value, 0);
      EXPECT_EQ(tx->outputs[0].pubkey_hash, row.to.pubkey_hash);
      EXPECT_EQ(tx->decrypt_messages(row.to.private_key), std::vector<std::string>{row.note});
      EXPECT_EQ(tx->total_output_value(), row.output_count == 2 ? row.value - row.fee : 0);
      EXPECT_TRUE(tx->verify_all_signatures({{outpoint(7), TxOut(row.value, alice().pubkey_hash)}}));
    }
  }
}

class HtlcTx : public testing::Test {
 protected:
  std::optional<Transaction> fund(int64_t amount, const Bytes& recipient, const Bytes& hash,
                                  uint32_t lock_time = kLockTime) {
    return Transaction::create_htlc_tx(alice().private_key, alice().pubkey, amount, recipient, hash, lock_time,
                                       spendable({60'000, 50'000}), 100, error_);
  }

  static constexpr uint32_t kLockTime = 700;
  const Bytes preimage_ = {'s', 'e', 'c', 'r', 'e', 't'};
  const Bytes payment_hash_ = crypto::sha256(preimage_).to_bytes();
  std::string error_;
};

TEST_F(HtlcTx, FundedThenClaimedOrRefunded) {
  const auto funding = fund(100'000, bob().pubkey_hash, payment_hash_);
  ASSERT_TRUE(funding) << error_;
  EXPECT_EQ(funding->type, TransactionType::HTLC_FUNDING);
  EXPECT_TRUE(funding->verify_all_signatures(as_map(spendable({60'000, 50'000}))));
  ASSERT_EQ(funding->outputs.size(), 2u);
  EXPECT_EQ(funding->outputs[1].value, 9'900);
  const OutPoint contract{funding->get_txid(), 0};
  const TxOut& output = funding->outputs[0];
  const std::map<OutPoint, TxOut> spent{{contract, output}};
  const CapturedStderr quiet;

  const auto claim = [&](const SampleKey& key, const Bytes& preimage) {
    const auto tx =
        Transaction::create_htlc_claim_tx(key.private_key, key.pubkey, contract, output, preimage, error_).value();
    EXPECT_EQ(tx.outputs.at(0).value, 90'000);
    EXPECT_EQ(tx.outputs.at(0).pubkey_hash, key.pubkey_hash);
    EXPECT_EQ(tx.type, TransactionType::TRANSFER);
    EXPECT_EQ(tx.inputs.at(0).pubkey, (Bytes{'H', 'T', 'L', 'C'}));
    return Transaction::deserialize(tx.serialize()).verify_all_signatures(spent);
  };
  EXPECT_TRUE(claim(bob(), preimage_));
  EXPECT_FALSE(claim(bob(), {'w', 'r', 'o', 'n', 'g'}));
  EXPECT_FALSE(claim(alice(), preimage_));

  const auto refund = [&](const SampleKey& key, uint32_t lock_time) {
    const auto tx =
        Transaction::create_htlc_refund_tx(key.private_key, key.pubkey, contract, output, lock_time, error_).value();
    EXPECT_EQ(tx.outputs.at(0).value, 90'000);
    EXPECT_EQ(tx.locktime, lock_time);
    EXPECT_EQ(tx.inputs.at(0).pubkey, (Bytes{'H', 'T', 'L', 'C'}));
    EXPECT_EQ(tx.inputs.at(0).sequence, 0xfffffffeu);
    return Transaction::deserialize(tx.serialize()).verify_all_signatures(spent);
  };
  EXPECT_FALSE(refund(alice(), kLockTime - 1));
  EXPECT_TRUE(refund(alice(), kLockTime));
  EXPECT_TRUE(refund(alice(), kLockTime + 1));
  EXPECT_FALSE(refund(bob(), kLockTime));
}

TEST_F(HtlcTx, RefusesBadArgumentsInOrder) {
  const struct {
    int64_t amount;
    Bytes recipient;
    Bytes hash;
    const char* error;
  } rows[] = {
      {0, Bytes(19), Bytes(31), "amount must be positive"},
      {-1, Bytes(20), Bytes(32), "amount must be positive"},
      {1, Bytes(19), Bytes(31), "payment_hash must be 32 bytes"},
      {1, Bytes(20), Bytes(33), "payment_hash must be 32 bytes"},
      {1, Bytes(19), Bytes(32), "recipient_pkh must be 20 bytes"},
      {109'901, Bytes(20), Bytes(32), "Insufficient funds"},
      {kMax, Bytes(20), Bytes(32), "Invalid amount"},
  };
  for (const auto& row : rows) {
    EXPECT_FALSE(fund(row.amount, row.recipient, row.hash));
    EXPECT_EQ(error_, row.error);
  }
  EXPECT_TRUE(fund(109'900, Bytes(20), Bytes(32)));
  for (const uint32_t lock_time : {0x7fffffffu, 0x80000000u}) {
    EXPECT_EQ(fund(1, Bytes(20), Bytes(32), lock_time).has_value(), lock_time == 0x7fffffffu);
    EXPECT_EQ(error_, lock_time == 0x7fffffffu ? "" : "Invalid lock time");
  }

  const SampleKey& key = bob();
  for (const int64_t value : {10'000, 10'001}) {
    const TxOut output(value, key.pubkey_hash);
    const char* want = value == 10'000 ? "HTLC amount too small to cover fee" : "";
    Transaction::create_htlc_claim_tx(key.private_key, key.pubkey, outpoint(1), output, {1}, error_);
    EXPECT_EQ(error_, want);
    Transaction::create_htlc_refund_tx(key.private_key, key.pubkey, outpoint(1), output, 1, error_);
    EXPECT_EQ(error_, want);
    EXPECT_FALSE(Transaction::create_htlc_claim_tx(key.private_key, key.pubkey, outpoint(1), output, {}, error_));
    EXPECT_EQ(error_, "Preimage cannot be empty");
  }
}

TEST(Signing, RefusesAnIndexOutOfRange) {
  Transaction tx;
  tx.inputs.resize(2);
  const Script script;
  EXPECT_EQ(runtime_error_of([&] { tx.sign_input(2, alice().private_key, script); }), "Invalid input index");
  EXPECT_EQ(runtime_error_of([&] { tx.sign_htlc_input_claim(2, alice().private_key, script, {}); }),
            "sign_htlc_input_claim: invalid input index");
  EXPECT_EQ(runtime_error_of([&] { tx.sign_htlc_input_refund(2, alice().private_key, script); }),
            "sign_htlc_input_refund: invalid input index");
  EXPECT_EQ(runtime_error_of([&] { tx.get_signature_hash(2, script); }), "Input index out of range");
}

TEST(Signing, CoversEveryFieldAndNamesTheInputThatFails) {
  const SpendableOutputs outputs = spendable({600, 500});
  std::string error;
  const Transaction good = Transaction::create_standard_tx(alice().private_key, alice().pubkey, bob().address, 1'000,
                                                           outputs, 0, "", {}, error)
                               .value();
  const std::string failed = "[Transaction] Signature verification failed for input ";
  const struct {
    const char* label;
    void (*change)(Transaction&);
    std::string line;
  } rows[] = {
      {"nothing", [](Transaction&) {}, ""},
      {"type", [](Transaction& tx) { tx.type = TransactionType::MESSAGE; }, failed + "0\n"},
      {"version", [](Transaction& tx) { tx.version = 2; }, failed + "0\n"},
      {"timestamp", [](Transaction& tx) { tx.timestamp += 1; }, failed + "0\n"},
      {"locktime", [](Transaction& tx) { tx.locktime = 1; }, failed + "0\n"},
      {"amount", [](Transaction& tx) { tx.outputs[0].value += 1; }, failed + "0\n"},
      {"a note", [](Transaction& tx) { tx.outputs[0].message.emplace(); }, failed + "0\n"},
      {"sequence of the other input", [](Transaction& tx) { tx.inputs[1].sequence = 0; }, failed + "0\n"},
      {"signature 1", [](Transaction& tx) { tx.inputs[1].signature.pop_back(); }, failed + "1\n"},
      {"key 1", [](Transaction& tx) { tx.inputs[1].pubkey = bob().pubkey; }, failed + "1\n"},
      {"prevout 0", [](Transaction& tx) { tx.inputs[0].prevout.index = 9; },
       "[Transaction] UTXO not found for input 0\n"},
      {"an extra input", [](Transaction& tx) { tx.inputs.emplace_back(); }, failed + "0\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Transaction tx = good;
    row.change(tx);
    const CapturedStderr errors;
    EXPECT_EQ(tx.verify_all_signatures(as_map(outputs)), row.line.empty());
    EXPECT_EQ(errors.text(), row.line);
  }
}

}  // namespace
}  // namespace norvel
