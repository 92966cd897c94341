#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <tuple>

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

constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
constexpr const char kNoKey[] = "Recipient public key required for encrypted messages";
constexpr const char kTooLong[] = "Message exceeds maximum size (1024 bytes)";
constexpr const char kNoFee[] = "Insufficient fee input value";
constexpr int64_t kFee = 10'100 + 100 * (1 + 16 + 12 + 33);  // of a note of one byte

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
  const Transaction genesis = Transaction::create_coinbase_tx(alice().address, 5, 19'999, 0, "");
  EXPECT_EQ(genesis.timestamp, 1'704'067'200u);
  EXPECT_EQ(genesis.outputs.size(), 1u);
  const uint64_t before = unix_time_seconds();
  const Transaction tx = Transaction::create_coinbase_tx(alice().address, 5, 20'003, 0x01020304, "ab");
  EXPECT_GE(tx.timestamp, before);
  EXPECT_EQ(tx.type, TransactionType::COINBASE);
  EXPECT_EQ(crypto::bytes_to_hex(tx.inputs.at(0).serialize()),
            std::string(64, '0') + "ffffffff" + "0600" + "040302016162" + "00" + "ffffffff");
  ASSERT_EQ(tx.outputs.size(), 2u);
  EXPECT_EQ(tx.outputs[0].value, 5);
  EXPECT_EQ(tx.outputs[0].script_pubkey, Script::create_p2pkh_output(alice().pubkey_hash).bytes);
  EXPECT_EQ(tx.outputs[1].value, 10'001);
  // The treasury, worked out with another library's digests.
  EXPECT_EQ(crypto::bytes_to_hex(tx.outputs[1].pubkey_hash), "f582d3f01298746841bf18263d4b8aa1346e6041");
  EXPECT_EQ(treasury::get_address(), "1PP9H5avwns2SUwYQ1Cw1mBkGvExfUwemi");
}

TEST(StandardTx, SelectsTheLargestAndReturnsTheChange) {
  // The inputs are numbers of outpoints.
  const std::tuple<const char*, int64_t, int64_t, SpendableOutputs, std::vector<uint8_t>, int64_t, const char*> rows[] =
      {
          {"one unit short", 900, 101, spendable({1'000}), {}, 0, "Insufficient funds"},
          {"change of 999 joins the fee", 1, 0, spendable({1'000}), {0}, 0, ""},
          {"change of 1,000 comes back", 1, 0, spendable({1'001}), {0}, 1'000, ""},
          {"largest first, no more than needed", 60, 0, spendable({10, 50, 30, 40}), {1, 3}, 0, ""},
          {"values that overflow together", kMost, 0, spendable({kMost - 1, kMost - 1}), {0, 1}, kMost - 2, ""},
          {"one outpoint listed twice", 15, 0, {spendable({10})[0], spendable({10})[0]}, {}, 0, "Insufficient funds"},
          {"the null outpoint", 5, 0, {{OutPoint::null(), TxOut(10, {})}}, {}, 0, "Insufficient funds"},
          {"nothing to pay", 0, 0, spendable({5'000}), {0}, 5'000, ""},
          {"negative amount", -1, 10, spendable({100}), {}, 0, "Invalid amount"},
          {"amount and fee overflow", kMost, 1, spendable({kMost}), {}, 0, "Invalid amount"},
      };
  std::string error;
  for (const auto& [label, amount, fee, outputs, inputs, change, want] : rows) {
    SCOPED_TRACE(label);
    const auto tx = Transaction::create_standard_tx(alice().private_key, alice().pubkey, bob().address, amount, outputs,
                                                    fee, "", {}, error);
    EXPECT_EQ(error, want);
    ASSERT_EQ(tx.has_value(), error.empty());
    if (tx) {
      std::vector<uint8_t> taken;
      for (const TxIn& input : tx->inputs) {
        taken.push_back(static_cast<uint8_t>(input.prevout.index));
      }
      EXPECT_EQ(taken, inputs);
      EXPECT_EQ(tx->outputs[0].value, amount);
      EXPECT_EQ(tx->outputs[0].pubkey_hash, bob().pubkey_hash);
      ASSERT_EQ(tx->outputs.size(), change == 0 ? 1u : 2u);
      EXPECT_EQ(change == 0 ? 0 : tx->outputs.back().value, change);
      EXPECT_EQ(tx->outputs.back().pubkey_hash, change == 0 ? bob().pubkey_hash : alice().pubkey_hash);
      EXPECT_TRUE(tx->verify_all_signatures(as_map(outputs)));
      const CapturedStderr errors;
      EXPECT_FALSE(tx->verify_all_signatures({}));
      EXPECT_EQ(errors.text(), "[Transaction] UTXO not found for input 0\n");
    }
  }
  Transaction::create_standard_tx(alice().private_key, bob().pubkey, bob().address, 1, {}, 0, "", {}, error);
  EXPECT_EQ(error, "Public key does not match private key");
}

TEST(EncryptedNote, TravelsInAPaymentOrAlone) {
  const struct {
    const char* label;
    bool alone;
    const SampleKey& to;
    size_t bytes;
    int64_t value, fee;
    Bytes recipient_key;
    const char* error;
  } rows[] = {
      {"paid, exact fee", false, bob(), 1, kFee, kFee, bob().pubkey, ""},
      {"paid, fee one unit short", false, bob(), 1, kFee, kFee - 1, bob().pubkey, kNoFee},
      {"paid, one byte more", false, bob(), 1'025, 200'000, 200'000, bob().pubkey, kTooLong},
      {"paid, no key", false, bob(), 1, kFee, kFee, {}, kNoKey},
      {"rest comes back", true, bob(), 1, kFee + 1'000, kFee, bob().pubkey, ""},
      {"to oneself without a key", true, alice(), 1, kFee, kFee, {}, ""},
      {"to another without a key", true, bob(), 1, kFee, kFee, {}, kNoKey},
      {"empty", true, bob(), 0, kFee, kFee, bob().pubkey, "Message cannot be empty"},
      {"too long", true, bob(), 1'025, 200'000, 200'000, bob().pubkey, kTooLong},
      {"fee below the note's", true, bob(), 1, kFee, kFee - 1, bob().pubkey, kNoFee},
      {"negative fee", true, bob(), 1, kFee, -1, bob().pubkey, "Invalid amount"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const std::string note(row.bytes, 'n');
    const SpendableOutputs outputs = spendable({row.value});
    std::string error;
    const auto tx = row.alone
                        ? Transaction::create_message_tx(alice().private_key, alice().pubkey, row.to.address, note,
                                                         outpoint(0), row.value, row.fee, error, row.recipient_key)
                        : Transaction::create_standard_tx(alice().private_key, alice().pubkey, row.to.address, 0,
                                                          outputs, row.fee, note, row.recipient_key, error);
    EXPECT_EQ(error, row.error);
    ASSERT_EQ(tx.has_value(), error.empty());
    if (tx) {
      EXPECT_EQ(tx->type, row.alone ? TransactionType::MESSAGE : TransactionType::TRANSFER);
      EXPECT_EQ(tx->outputs.at(0).value, 0);
      EXPECT_EQ(tx->outputs[0].pubkey_hash, row.to.pubkey_hash);
      EXPECT_EQ(tx->total_output_value(), row.value - row.fee >= 1'000 ? row.value - row.fee : 0);
      const Transaction received = Transaction::deserialize(tx->serialize());
      EXPECT_EQ(received.decrypt_messages(row.to.private_key).at(0), note);
      EXPECT_EQ(received.decrypt_messages(sample_key(3).private_key).at(0), "");
      EXPECT_TRUE(received.verify_all_signatures(as_map(outputs)));
    }
  }
}

std::optional<Transaction> fund(int64_t amount, const Bytes& recipient, const Bytes& hash, uint32_t lock_time,
                                std::string& error) {
  return Transaction::create_htlc_tx(alice().private_key, alice().pubkey, amount, recipient, hash, lock_time,
                                     spendable({60'000, 50'000}), 100, error);
}

TEST(HtlcTx, FundedThenClaimedOrRefunded) {
  constexpr uint32_t kLockTime = 700;
  std::string error;
  const Bytes secret = {'s', 'e', 'c', 'r', 'e', 't'};
  const auto funding = fund(100'000, bob().pubkey_hash, crypto::sha256(secret).to_bytes(), kLockTime, error);
  ASSERT_TRUE(funding) << error;
  EXPECT_EQ(funding->type, TransactionType::HTLC_FUNDING);
  EXPECT_EQ(funding->outputs.at(1).value, 9'900);
  const OutPoint contract{funding->get_txid(), 0};
  const TxOut& output = funding->outputs[0];
  const CapturedStderr errors;
  const auto is_valid = [&](std::optional<Transaction> tx, const SampleKey& key, bool has_marker = true) {
    EXPECT_EQ(tx.value().outputs.at(0).value, 90'000);
    EXPECT_EQ(tx->outputs[0].pubkey_hash, key.pubkey_hash);
    tx->inputs[0].pubkey.resize(has_marker ? 4 : 3);  // is not signed
    tx->invalidate_cache();
    return Transaction::deserialize(tx->serialize()).verify_all_signatures({{contract, output}});
  };
  const auto claim = [&](const SampleKey& key, const Bytes& preimage) {
    return is_valid(Transaction::create_htlc_claim_tx(key.private_key, key.pubkey, contract, output, preimage, error),
                    key);
  };
  EXPECT_TRUE(claim(bob(), secret));
  EXPECT_FALSE(claim(bob(), {'w', 'r', 'o', 'n', 'g'}));
  EXPECT_EQ(errors.text(), "[Transaction] Signature verification failed for input 0\n");
  EXPECT_FALSE(claim(alice(), secret));
  const auto refund = [&](const SampleKey& key, uint32_t lock_time, bool has_marker = true) {
    return is_valid(Transaction::create_htlc_refund_tx(key.private_key, key.pubkey, contract, output, lock_time, error),
                    key, has_marker);
  };
  EXPECT_FALSE(refund(alice(), kLockTime - 1));
  EXPECT_TRUE(refund(alice(), kLockTime));
  EXPECT_FALSE(refund(alice(), kLockTime, false)) << "only the whole marker announces an unlocking script";
  EXPECT_FALSE(refund(bob(), kLockTime));
}

TEST(HtlcTx, RefusesBadArguments) {
  std::string error;
  const std::tuple<int64_t, size_t, size_t, uint32_t, const char*> rows[] = {
      {0, 19, 31, 1, "amount must be positive"},
      {1, 19, 31, 1, "payment_hash must be 32 bytes"},
      {1, 19, 32, 1, "recipient_pkh must be 20 bytes"},
      {1, 20, 32, 0x80000000, "Invalid lock time"},
      {kMost, 20, 32, 1, "Invalid amount"},
      {109'901, 20, 32, 1, "Insufficient funds"},
      {109'900, 20, 32, 0x7fffffff, ""},
  };
  for (const auto& [amount, recipient_bytes, hash_bytes, lock_time, want] : rows) {
    EXPECT_EQ(fund(amount, Bytes(recipient_bytes), Bytes(hash_bytes), lock_time, error).has_value(), *want == '\0');
    EXPECT_EQ(error, want);
  }
  const SampleKey& key = bob();
  const TxOut small(10'000, key.pubkey_hash);
  Transaction::create_htlc_claim_tx(key.private_key, key.pubkey, outpoint(1), small, {1}, error);
  EXPECT_EQ(error, "HTLC amount too small to cover fee");
  Transaction::create_htlc_claim_tx(key.private_key, key.pubkey, outpoint(1), small, {}, error);
  EXPECT_EQ(error, "Preimage cannot be empty");
  EXPECT_EQ(runtime_error_of([] { Transaction().sign_input(0, bob().private_key, Script()); }), "Invalid input index");
}

}  // namespace
}  // namespace norvel
