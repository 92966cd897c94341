#include "cli/payment.h"

#include <algorithm>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "cli/amount.h"
#include "crypto/address.h"
#include "crypto/encrypted_message.h"

namespace norvel::cli {

namespace {

// Of a signature in DER with the low s that signing makes.
constexpr size_t kSignatureBytesMax = 71;

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

// What a payment without inputs weighs and costs, and what each input adds.
struct Tariff {
  int64_t note_fee = 0;
  int64_t base_bytes = 0;  // without change
  int64_t change_bytes = 0;
  int64_t input_bytes = 0;

  int64_t fee(size_t input_count, bool with_change) const {
    const int64_t bytes =
        base_bytes + (with_change ? change_bytes : 0) + input_bytes * static_cast<int64_t>(input_count);
    return note_fee + kFeeUnitsPerByte * bytes;
  }
};

Tariff make_tariff(const PaymentOrder& order, const KeyPair& sender, const Bytes& recipient_key) {
  Tariff tariff;
  const TxOut change(0, crypto::address_to_hash160(sender.address));
  tariff.change_bytes = static_cast<int64_t>(change.serialize().size());
  Transaction tx;
  tx.outputs.push_back(change);  // as long as the one to the recipient
  if (!order.message.empty()) {
    tx.outputs[0].message = crypto::encrypt_message(order.message, recipient_key);
  }
  tariff.note_fee = tx.outputs[0].calculate_message_fee();
  tariff.base_bytes = static_cast<int64_t>(tx.size());
  TxIn input;
  input.signature.resize(kSignatureBytesMax);
  input.pubkey = sender.public_key;
  tariff.input_bytes = static_cast<int64_t>(input.serialize().size());
  return tariff;
}

// Values that can be spent, in the order in which create_standard_tx() takes them.
std::vector<uint64_t> values_largest_first(const SpendableOutputs& spendable) {
  std::set<OutPoint> seen;
  std::vector<uint64_t> values;
  for (const auto& [outpoint, output] : spendable) {
    if (output.value > 0 && !outpoint.is_null() && seen.insert(outpoint).second) {
      values.push_back(static_cast<uint64_t>(output.value));
    }
  }
  std::sort(values.begin(), values.end(), std::greater<>());
  return values;
}

// The fee, for a transaction that is not made yet: signing it to weigh it would
// sign every input once for each input that the fee asks for.
int64_t choose_fee(const PaymentOrder& order, const Tariff& tariff, const SpendableOutputs& spendable) {
  const auto amount = static_cast<uint64_t>(order.amount);
  uint64_t taken = 0;
  size_t input_count = 0;
  int64_t fee = order.fee.value_or(tariff.fee(0, false));
  const auto is_enough = [&] {
    if (order.fee) {
      return taken >= amount + static_cast<uint64_t>(fee);
    }
    const int64_t without_change = tariff.fee(input_count, false);
    const int64_t with_change = tariff.fee(input_count, true);
    const bool has_change = taken >= amount + static_cast<uint64_t>(with_change + kDustUnits);
    // What is too small for change joins the fee.
    const bool is_covered = taken >= amount + static_cast<uint64_t>(without_change);
    fee = has_change ? with_change : is_covered ? static_cast<int64_t>(taken - amount) : without_change;
    return has_change || is_covered;
  };
  for (const uint64_t value : values_largest_first(spendable)) {
    taken += value;  // what is not enough is below 2^63 and a little, so this cannot wrap
    ++input_count;
    if (is_enough()) {
      if (input_count > kInputsMax) {
        throw std::runtime_error("The payment would need " + std::to_string(input_count) + " small outputs, and " +
                                 std::to_string(kInputsMax) +
                                 " are the most that nodes relay; pay less, or first to yourself");
      }
      break;
    }
  }
  return fee;
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
  const int64_t fee = choose_fee(order, make_tariff(order, sender, recipient_key), spendable);
  std::string error;
  std::optional<Transaction> made =
      Transaction::create_standard_tx(sender.secret, sender.public_key, order.address, order.amount, spendable, fee,
                                      order.message, recipient_key, error);
  if (!made) {
    throw std::runtime_error(error);
  }
  Transaction tx = std::move(*made);
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
