// The constructors of Transaction that wallets use: payment, note, contract
// funding, claim and refund.
//
// Errors: inside, a failure is an exception; build() turns it into the caller's
// error text and an empty result, so that nothing half-made leaves this file.

#include <algorithm>
#include <limits>
#include <set>
#include <stdexcept>

#include "core/clock.h"
#include "core/transaction.h"
#include "core/transaction_parts.h"
#include "crypto/address.h"
#include "crypto/hash.h"
#include "crypto/keys.h"
#include "script/script.h"

namespace norvel {

namespace {

constexpr size_t kInputsMax = std::numeric_limits<uint16_t>::max();
constexpr size_t kUnlockingBytesMax = std::numeric_limits<uint16_t>::max();

// Scripts read the top bit of a lock time as a sign: the coins of a contract
// with a later one could never be refunded, or at once.
constexpr uint32_t kHtlcLockTimeMax = 0x7fffffff;

void check(bool holds, const std::string& message) {
  if (!holds) {
    throw std::runtime_error(message);
  }
}

template <class Make>
std::optional<Transaction> build(std::string& error, Make make) {
  error.clear();
  try {
    return make();
  } catch (const std::exception& failure) {
    error = failure.what();
    return std::nullopt;
  }
}

// Who signs and receives the change.
struct Signer {
  Signer(const Bytes& private_key_bytes, const Bytes& pubkey)
      : private_key(private_key_bytes), pubkey_hash(crypto::hash160(pubkey)) {
    // Otherwise the change would go to a key that nobody may hold.
    check(crypto::derive_public_key(private_key) == pubkey, "Public key does not match private key");
  }

  const Bytes& private_key;
  Bytes pubkey_hash;
};

int64_t checked_total(int64_t amount, int64_t fee) {
  check(amount >= 0 && fee >= 0 && amount <= std::numeric_limits<int64_t>::max() - fee, "Invalid amount");
  return amount + fee;
}

void check_message(const std::string& message) {
  check(message.size() <= kMessageBytesMax,
        "Message exceeds maximum size (" + std::to_string(kMessageBytesMax) + " bytes)");
}

// The outputs to spend, largest first, and what they exceed `needed` by.
struct Selection {
  SpendableOutputs inputs;
  int64_t change = 0;
};

Selection select_inputs(SpendableOutputs spendable, int64_t needed) {
  std::stable_sort(spendable.begin(), spendable.end(),
                   [](const auto& a, const auto& b) { return a.second.value > b.second.value; });
  Selection selection;
  std::set<OutPoint> chosen;
  int64_t missing = needed;
  for (auto& entry : spendable) {
    const int64_t value = entry.second.value;
    if (value <= 0 || (missing == 0 && !chosen.empty())) {
      break;
    }
    if (entry.first.is_null() || !chosen.insert(entry.first).second) {
      continue;
    }
    selection.inputs.push_back(std::move(entry));
    if (value >= missing) {
      selection.change = value - missing;
      missing = 0;
    } else {
      missing -= value;
    }
  }
  check(missing == 0 && !chosen.empty(), "Insufficient funds");
  check(selection.inputs.size() <= kInputsMax, "Transaction needs too many inputs");
  return selection;
}

Transaction start_transaction(TransactionType type) {
  Transaction tx;
  tx.type = type;
  tx.timestamp = unix_time_seconds();
  return tx;
}

void add_change(Transaction& tx, int64_t change, const Signer& signer) {
  if (change >= kDustUnits) {
    tx.outputs.push_back(make_p2pkh_output(change, signer.pubkey_hash));
  }
}

void add_input(Transaction& tx, const OutPoint& prevout, uint32_t sequence = kSequenceFinal) {
  TxIn input;
  input.prevout = prevout;
  input.sequence = sequence;
  tx.inputs.push_back(std::move(input));
}

// Completes a transaction whose outputs other than the change stand.
Transaction fund(Transaction tx, const Selection& selection, const Signer& signer) {
  add_change(tx, selection.change, signer);
  for (const auto& [outpoint, output] : selection.inputs) {
    add_input(tx, outpoint);
  }
  for (size_t i = 0; i < selection.inputs.size(); ++i) {
    tx.sign_input(i, signer.private_key, Script(selection.inputs[i].second.locking_script()));
  }
  return tx;
}

// A transaction that pays a contract's value, less the fixed fee, to the signer.
Transaction spend_htlc(const OutPoint& outpoint, const TxOut& output, const Signer& signer, uint32_t sequence) {
  check(output.value > kHtlcSpendFeeUnits, "HTLC amount too small to cover fee");
  Transaction tx = start_transaction(TransactionType::TRANSFER);
  add_input(tx, outpoint, sequence);
  tx.outputs.push_back(make_p2pkh_output(output.value - kHtlcSpendFeeUnits, signer.pubkey_hash));
  return tx;
}

}  // namespace

std::optional<Transaction> Transaction::create_standard_tx(const Bytes& sender_private_key, const Bytes& sender_pubkey,
                                                           const std::string& destination, int64_t amount,
                                                           const SpendableOutputs& spendable, int64_t fee,
                                                           const std::string& message, const Bytes& recipient_pubkey,
                                                           std::string& error) {
  return build(error, [&] {
    const int64_t needed = checked_total(amount, fee);
    const Signer signer(sender_private_key, sender_pubkey);
    Transaction tx = start_transaction(TransactionType::TRANSFER);
    tx.outputs.push_back(make_p2pkh_output(amount, crypto::address_to_hash160(destination)));
    if (!message.empty()) {
      check(!recipient_pubkey.empty(), "Recipient public key required for encrypted messages");
      check_message(message);
      tx.outputs[0].message = crypto::encrypt_message(message, recipient_pubkey);
      check(fee >= tx.outputs[0].calculate_message_fee(), "Insufficient fee input value");
    }
    return fund(std::move(tx), select_inputs(spendable, needed), signer);
  });
}

std::optional<Transaction> Transaction::create_message_tx(const Bytes& sender_private_key, const Bytes& sender_pubkey,
                                                          const std::string& destination, const std::string& message,
                                                          const OutPoint& fee_input, int64_t fee_input_value,
                                                          int64_t fee, std::string& error,
                                                          const Bytes& recipient_pubkey) {
  return build(error, [&] {
    check(!message.empty(), "Message cannot be empty");
    check_message(message);
    check(fee_input_value >= 0 && fee >= 0, "Invalid amount");
    check(fee_input_value >= fee, "Insufficient fee input value");
    const Signer signer(sender_private_key, sender_pubkey);
    const Bytes destination_hash = crypto::address_to_hash160(destination);
    check(!recipient_pubkey.empty() || destination_hash == signer.pubkey_hash,
          "Recipient public key required for encrypted messages");

    Transaction tx = start_transaction(TransactionType::MESSAGE);
    tx.outputs.push_back(make_p2pkh_output(0, destination_hash));
    tx.outputs[0].message =
        crypto::encrypt_message(message, recipient_pubkey.empty() ? sender_pubkey : recipient_pubkey);
    check(fee >= tx.outputs[0].calculate_message_fee(), "Insufficient fee input value");

    const TxOut spent = make_p2pkh_output(fee_input_value, signer.pubkey_hash);
    return fund(std::move(tx), {{{fee_input, spent}}, fee_input_value - fee}, signer);
  });
}

std::optional<Transaction> Transaction::create_htlc_tx(const Bytes& sender_private_key, const Bytes& sender_pubkey,
                                                       int64_t amount, const Bytes& recipient_pkh,
                                                       const Bytes& payment_hash, uint32_t lock_time,
                                                       const SpendableOutputs& spendable, int64_t fee,
                                                       std::string& error) {
  return build(error, [&] {
    check(amount > 0, "amount must be positive");
    check(payment_hash.size() == 32, "payment_hash must be 32 bytes");
    check(recipient_pkh.size() == 20, "recipient_pkh must be 20 bytes");
    check(lock_time <= kHtlcLockTimeMax, "Invalid lock time");
    const int64_t needed = checked_total(amount, fee);
    const Signer signer(sender_private_key, sender_pubkey);

    Transaction tx = start_transaction(TransactionType::HTLC_FUNDING);
    TxOut contract(amount, {});
    contract.script_pubkey =
        Script::create_htlc_output(recipient_pkh, signer.pubkey_hash, payment_hash, lock_time).bytes;
    tx.outputs.push_back(std::move(contract));
    return fund(std::move(tx), select_inputs(spendable, needed), signer);
  });
}

std::optional<Transaction> Transaction::create_htlc_claim_tx(const Bytes& private_key, const Bytes& pubkey,
                                                             const OutPoint& htlc_outpoint, const TxOut& htlc_output,
                                                             const Bytes& preimage, std::string& error) {
  return build(error, [&] {
    check(!preimage.empty(), "Preimage cannot be empty");
    const Signer signer(private_key, pubkey);
    Transaction tx = spend_htlc(htlc_outpoint, htlc_output, signer, kSequenceFinal);
    tx.sign_htlc_input_claim(0, private_key, Script(htlc_output.script_pubkey), preimage);
    check(tx.inputs[0].signature.size() <= kUnlockingBytesMax, "Preimage too large");
    return tx;
  });
}

std::optional<Transaction> Transaction::create_htlc_refund_tx(const Bytes& private_key, const Bytes& pubkey,
                                                              const OutPoint& htlc_outpoint, const TxOut& htlc_output,
                                                              uint32_t lock_time, std::string& error) {
  return build(error, [&] {
    const Signer signer(private_key, pubkey);
    // A final sequence would switch off the lock-time check that the refund branch makes.
    Transaction tx = spend_htlc(htlc_outpoint, htlc_output, signer, kSequenceFinal - 1);
    tx.locktime = lock_time;
    tx.sign_htlc_input_refund(0, private_key, Script(htlc_output.script_pubkey));
    return tx;
  });
}

}  // namespace norvel
