#include "cli/payment.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "cli/amount.h"
#include "crypto/address.h"
#include "crypto/encrypted_message.h"

namespace norvel::cli {

namespace {

// Signatures of the same transaction differ by a byte or two in length.
constexpr int64_t kSpareBytesPerInput = 2;

// Each round that does not end raises the fee by at least one more input's
// worth, or by a few bytes; a payment that needs more has too many outputs.
constexpr int kFeeRoundsMax = 1'000;

OutPoint read_outpoint(const rpc::JsonValue& utxo) {
  const std::string& txid = utxo.get("txid").string;
  const double index = utxo.get("vout").number;
  const bool is_txid =
      txid.size() == 2 * uint256::kSize && txid.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  if (!is_txid || utxo.get("vout").type != rpc::JsonType::kNumber || rpc::to_u32(index) != index) {
    throw std::runtime_error("The node named an output that is none");
  }
  return {uint256::from_hex(txid), rpc::to_u32(index)};
}

int64_t note_fee(const std::string& message, const Bytes& recipient_key) {
  TxOut probe;
  if (!message.empty()) {
    probe.message = crypto::encrypt_message(message, recipient_key);
  }
  return probe.calculate_message_fee();
}

Transaction build(const PaymentOrder& order, int64_t fee, const KeyPair& sender, const SpendableOutputs& spendable,
                  const Bytes& recipient_key) {
  std::string error;
  std::optional<Transaction> tx =
      Transaction::create_standard_tx(sender.secret, sender.public_key, order.address, order.amount, spendable, fee,
                                      order.message, recipient_key, error);
  if (!tx) {
    throw std::runtime_error(error);
  }
  return std::move(*tx);
}

// The default fee depends on the size, which depends on the inputs, which
// depend on the fee.
Transaction build_with_default_fee(const PaymentOrder& order, const KeyPair& sender, const SpendableOutputs& spendable,
                                   const Bytes& recipient_key) {
  const int64_t fixed = note_fee(order.message, recipient_key);
  int64_t fee = fixed;
  for (int round = 0; round < kFeeRoundsMax; ++round) {
    Transaction tx = build(order, fee, sender, spendable, recipient_key);
    const auto inputs = static_cast<int64_t>(tx.inputs.size());
    const int64_t needed = fixed + kFeeUnitsPerByte * (static_cast<int64_t>(tx.size()) + kSpareBytesPerInput * inputs);
    // Change too small for an output is in the fee already.
    if (fee >= needed || fee_of(tx, spendable) >= needed) {
      return tx;
    }
    fee = needed;
  }
  throw std::runtime_error("No fee is found for so many small outputs; give one with --fee");
}

void check_recipient_key(const std::string& address, const Bytes& key) {
  constexpr uint8_t kVersion = 0;
  const std::string owner = crypto::pubkey_to_address(key, kVersion);
  if (crypto::address_to_hash160(owner) != crypto::address_to_hash160(address)) {
    throw std::runtime_error("The node gave a public key of another address; the message is not sent");
  }
}

}  // namespace

SpendableOutputs read_spendable(const rpc::JsonValue& utxos, const std::string& address,
                                const std::set<OutPoint>& taken) {
  const Bytes payee_hash = crypto::address_to_hash160(address);
  SpendableOutputs spendable;
  for (const rpc::JsonValue& utxo : utxos.array) {
    const OutPoint outpoint = read_outpoint(utxo);
    const int64_t value = read_units(utxo.get("value"), "the value of an output");
    if (!taken.contains(outpoint)) {
      spendable.emplace_back(outpoint, TxOut(value, payee_hash));
    }
  }
  return spendable;
}

Transaction make_payment(const PaymentOrder& order, const KeyPair& sender, const SpendableOutputs& spendable,
                         const Bytes& recipient_key) {
  if (!order.message.empty()) {
    check_recipient_key(order.address, recipient_key);
  }
  Transaction tx = order.fee ? build(order, *order.fee, sender, spendable, recipient_key)
                             : build_with_default_fee(order, sender, spendable, recipient_key);
  if (fee_of(tx, spendable) > kFeeUnitsMax) {
    throw std::runtime_error("A fee of " + coins_text(fee_of(tx, spendable)) + " NVL is refused; at most " +
                             coins_text(kFeeUnitsMax));
  }
  return tx;
}

int64_t fee_of(const Transaction& tx, const SpendableOutputs& spendable) {
  const std::map<OutPoint, TxOut> values(spendable.begin(), spendable.end());
  int64_t fee = 0;
  for (const TxIn& input : tx.inputs) {
    fee += values.at(input.prevout).value;
  }
  for (const TxOut& output : tx.outputs) {
    fee -= output.value;
  }
  return fee;
}

}  // namespace norvel::cli
