#include "cli/payment.h"

#include <gtest/gtest.h>

#include <ctime>
#include <map>

#include "cli/amount.h"
#include "crypto/hex.h"
#include "mempool/admission.h"
#include "support/ledger_samples.h"

namespace norvel::cli {
namespace {

const SampleKey kSender = sample_key(1);
const SampleKey kRecipient = sample_key(2);

PaymentOrder order_of(int64_t amount, std::optional<int64_t> fee = {}, const std::string& message = "") {
  return {"", kRecipient.address, amount, fee, message};
}

// `count` outputs of `value` each, as getutxos lists them.
rpc::JsonValue list_utxos(size_t count, int64_t value) {
  std::vector<rpc::JsonValue> list;
  for (size_t i = 0; i < count; ++i) {
    rpc::JsonValue utxo;
    utxo.set("txid", std::string(62, 'a') + crypto::bytes_to_hex(Bytes{static_cast<uint8_t>(i)}));
    utxo.set("vout", i);
    utxo.set("value", value);
    list.push_back(std::move(utxo));
  }
  return list;
}

SpendableOutputs outputs(size_t count, int64_t value) {
  return read_spendable(list_utxos(count, value), kSender.address, {});
}

// As its sender makes it; with a message for whom the node gives this key.
Transaction payment(const PaymentOrder& order, const SpendableOutputs& spendable, const Bytes& recipient = {}) {
  KeyPair sender;
  sender.secret = kSender.private_key;
  sender.public_key = kSender.pubkey;
  sender.address = kSender.address;
  return make_payment(order, sender, spendable, recipient);
}

bool is_signed(const Transaction& tx, const SpendableOutputs& spendable) {
  return tx.verify_all_signatures(std::map<OutPoint, TxOut>(spendable.begin(), spendable.end()));
}

TEST(Payment, PaysTheAmountTheFeeBySizeAndTheRestBack) {
  for (const size_t inputs : {1U, 2U, 60U}) {
    SCOPED_TRACE(inputs);
    const SpendableOutputs spendable = outputs(inputs, kCoin);
    const int64_t amount = static_cast<int64_t>(inputs) * kCoin - kCoin / 2;
    const Transaction tx = payment(order_of(amount), spendable);
    ASSERT_EQ(tx.outputs.size(), 2u);
    EXPECT_EQ(tx.outputs[0].value, amount);
    EXPECT_EQ(tx.outputs[0].get_pubkey_hash(), kRecipient.pubkey_hash);
    EXPECT_EQ(tx.outputs[1].get_pubkey_hash(), kSender.pubkey_hash);
    EXPECT_TRUE(is_signed(tx, spendable));
    const auto size = static_cast<int64_t>(tx.size());
    EXPECT_GE(fee_of(tx, spendable), kFeeUnitsPerByte * size);
    EXPECT_LE(fee_of(tx, spendable), kFeeUnitsPerByte * (size + 4 * static_cast<int64_t>(inputs)));
  }
}

TEST(Payment, FeeAtTheEdgesOfWhatThereIs) {
  const SpendableOutputs spendable = outputs(2, kCoin);
  // The fee by size needs the second output.
  EXPECT_EQ(payment(order_of(kCoin), spendable).inputs.size(), 2u);
  // Nothing is left for a fee by size, while none at all is a wish to be had.
  EXPECT_THROW(payment(order_of(2 * kCoin), spendable), std::runtime_error);
  EXPECT_EQ(fee_of(payment(order_of(2 * kCoin, 0), spendable), spendable), 0);
  // Nodes may list an output twice.
  SpendableOutputs repeated = outputs(1, kCoin);
  repeated.push_back(repeated[0]);
  EXPECT_EQ(runtime_error_of([&] { payment(order_of(kCoin), repeated); }), "Insufficient funds");
  // What is too small for change is fee enough.
  const SpendableOutputs one = outputs(1, kCoin);
  const Transaction without_change = payment(order_of(kCoin - 3'000), one);
  EXPECT_EQ(without_change.outputs.size(), 1u);
  EXPECT_EQ(fee_of(without_change, one), 3'000);
  // As much as the fee of a transaction without change, which another input would only raise.
  const Transaction exact = payment(order_of(kCoin - 2'040), outputs(2, kCoin));
  EXPECT_EQ(exact.inputs.size(), 1u);
  EXPECT_EQ(fee_of(exact, outputs(2, kCoin)), 2'040);
}

// Each output brings hardly more than the fee of spending it, so that the fee grows with every input.
TEST(Payment, ManySmallOutputsAreSignedOnce) {
  const auto cpu_seconds = [](const PaymentOrder& order, const SpendableOutputs& spendable, size_t inputs) {
    const std::clock_t start = std::clock();
    EXPECT_EQ(payment(order, spendable).inputs.size(), inputs);
    return static_cast<double>(std::clock() - start);
  };
  constexpr int64_t kValue = 1'500;
  const SpendableOutputs spendable = outputs(3'000, kValue);
  const PaymentOrder order = order_of(4 * kValue);
  const Transaction tx = payment(order, spendable);
  const size_t inputs = tx.inputs.size();
  EXPECT_GT(inputs, 200u);
  EXPECT_GE(fee_of(tx, spendable), kFeeUnitsPerByte * static_cast<int64_t>(tx.size()));
  const double once = cpu_seconds(order_of(order.amount, fee_of(tx, spendable)), spendable, inputs);
  EXPECT_LT(cpu_seconds(order, spendable, inputs), 5 * once);
}

TEST(Payment, MoreInputsThanNodesRelayAreRefusedBeforeSigning) {
  const SpendableOutputs spendable = outputs(kInputsMax + 1, kCoin);
  const auto most = static_cast<int64_t>(kInputsMax) * kCoin;
  for (const std::optional<int64_t> fee : {std::optional<int64_t>(), std::optional<int64_t>(1)}) {
    EXPECT_EQ(runtime_error_of([&] { payment(order_of(most, fee), spendable); }),
              "The payment would need 2001 small outputs, and 2000 are the most that nodes relay; pay less, or first "
              "to yourself");
  }
  static_assert(kInputsMax == kPolicySignatureChecksMax);
}

TEST(Payment, FeeOfASlipOfTheHandIsRefused) {
  const SpendableOutputs spendable = outputs(1, 20 * kCoin);
  EXPECT_EQ(fee_of(payment(order_of(kCoin, kFeeUnitsMax), spendable), spendable), kFeeUnitsMax);
  EXPECT_THROW(payment(order_of(kCoin, kFeeUnitsMax + 1), spendable), std::runtime_error);
}

TEST(Payment, MessageIsReadByTheRecipientAloneAndPaidFor) {
  const SpendableOutputs spendable = outputs(1, kCoin);
  const Transaction tx = payment(order_of(1'000, {}, "hello"), spendable, kRecipient.pubkey);
  EXPECT_EQ(tx.decrypt_messages(kRecipient.private_key), std::vector<std::string>{"hello"});
  EXPECT_GE(fee_of(tx, spendable),
            tx.outputs[0].calculate_message_fee() + kFeeUnitsPerByte * static_cast<int64_t>(tx.size()));
  // Another key from the node would show the note to someone else.
  EXPECT_EQ(runtime_error_of([&] { payment(order_of(1'000, {}, "hello"), spendable, kSender.pubkey); }),
            "The node gave a public key of another address; the message is not sent");
}

TEST(Spendable, TakesWhatTheNodeListsExactlyOrRefuses) {
  const rpc::JsonValue utxos = list_utxos(3, 5);
  const SpendableOutputs all = read_spendable(utxos, kSender.address, {});
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[2].first.index, 2u);
  EXPECT_EQ(all[2].second.value, 5);
  EXPECT_EQ(read_spendable(utxos, kSender.address, {all[1].first}).size(), 2u);

  const struct {
    const char* label;
    const char* key;
    rpc::JsonValue value;
  } rows[] = {
      {"rounded value", "value", rpc::JsonValue(kJsonUnitsMax)},
      {"value as text", "value", rpc::JsonValue("5")},
      {"no txid", "txid", rpc::JsonValue("ab")},
      {"index beyond 32 bits", "vout", rpc::JsonValue(5e9)},
      {"index between two", "vout", rpc::JsonValue(0.5)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    rpc::JsonValue spoilt = utxos;
    spoilt.array[1].set(row.key, row.value);
    EXPECT_THROW(read_spendable(spoilt, kSender.address, {}), std::runtime_error);
  }
}

}  // namespace
}  // namespace norvel::cli
