// Keys and signatures for the functional tests: makes the transactions that
// norvel-cli has no command for, and opens notes. PRIVATE is a private key in
// hexadecimal, an OUTPUT is TXID:INDEX:VALUE and pays that key's address.
// Prints one line of hexadecimal, or the notes; failures go to standard error
// with exit status 1.

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/transaction.h"
#include "crypto/address.h"
#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto/keys.h"

namespace norvel {

namespace {

constexpr const char kUsage[] =
    "wallet_tool pubkey PRIVATE\n"
    "            pay    PRIVATE ADDRESS AMOUNT FEE OUTPUT...\n"
    "            lock   PRIVATE ADDRESS AMOUNT FEE PAYMENT_HASH LOCK_TIME OUTPUT...\n"
    "            claim  PRIVATE PREIMAGE FUNDING_TX     (spends its output 0, as refund does)\n"
    "            refund PRIVATE LOCK_TIME FUNDING_TX\n"
    "            notes  PRIVATE TX\n";

using Arguments = std::vector<std::string>;

SpendableOutputs read_outputs(const Arguments& arguments, size_t first, const Bytes& pubkey_hash) {
  SpendableOutputs outputs;
  for (size_t i = first; i < arguments.size(); ++i) {
    const std::string& text = arguments[i];
    const size_t index_at = text.find(':') + 1;
    const size_t value_at = text.find(':', index_at) + 1;
    const OutPoint outpoint{uint256::from_hex(text.substr(0, index_at - 1)),
                            static_cast<uint32_t>(std::stoul(text.substr(index_at)))};
    outputs.emplace_back(outpoint, TxOut(std::stoll(text.substr(value_at)), pubkey_hash));
  }
  return outputs;
}

std::string hex_of(const std::optional<Transaction>& tx, const std::string& error) {
  if (!tx) {
    throw std::runtime_error(error);
  }
  return crypto::bytes_to_hex(tx->serialize());
}

std::string spend_contract(const Arguments& arguments, const Bytes& key, const Bytes& pubkey) {
  const auto funding = Transaction::deserialize(crypto::hex_to_bytes(arguments.at(3)));
  const OutPoint outpoint{funding.get_txid(), 0};
  const TxOut& output = funding.outputs.at(0);
  std::string error;
  if (arguments[0] == "claim") {
    const Bytes preimage = crypto::hex_to_bytes(arguments[2]);
    return hex_of(Transaction::create_htlc_claim_tx(key, pubkey, outpoint, output, preimage, error), error);
  }
  const auto lock_time = static_cast<uint32_t>(std::stoul(arguments[2]));
  return hex_of(Transaction::create_htlc_refund_tx(key, pubkey, outpoint, output, lock_time, error), error);
}

std::string fund(const Arguments& arguments, const Bytes& key, const Bytes& pubkey) {
  const Bytes pubkey_hash = crypto::hash160(pubkey);
  const int64_t amount = std::stoll(arguments.at(3));
  const int64_t fee = std::stoll(arguments.at(4));
  std::string error;
  if (arguments[0] == "pay") {
    const auto outputs = read_outputs(arguments, 5, pubkey_hash);
    return hex_of(Transaction::create_standard_tx(key, pubkey, arguments[2], amount, outputs, fee, "", {}, error),
                  error);
  }
  const Bytes recipient = crypto::address_to_hash160(arguments[2]);
  const Bytes payment_hash = crypto::hex_to_bytes(arguments.at(5));
  const auto lock_time = static_cast<uint32_t>(std::stoul(arguments.at(6)));
  const auto outputs = read_outputs(arguments, 7, pubkey_hash);
  return hex_of(
      Transaction::create_htlc_tx(key, pubkey, amount, recipient, payment_hash, lock_time, outputs, fee, error), error);
}

std::string run(const Arguments& arguments) {
  const std::string& command = arguments.at(0);
  const Bytes key = crypto::hex_to_bytes(arguments.at(1));
  const Bytes pubkey = crypto::derive_public_key(key);
  if (command == "pubkey") {
    return crypto::bytes_to_hex(pubkey);
  }
  if (command == "pay" || command == "lock") {
    return fund(arguments, key, pubkey);
  }
  if (command == "claim" || command == "refund") {
    return spend_contract(arguments, key, pubkey);
  }
  if (command != "notes") {
    throw std::runtime_error(kUsage);
  }
  std::string lines;
  for (const std::string& note :
       Transaction::deserialize(crypto::hex_to_bytes(arguments.at(2))).decrypt_messages(key)) {
    lines += (lines.empty() ? "" : "\n") + note;
  }
  return lines;
}

}  // namespace

}  // namespace norvel

int main(int argc, char** argv) {
  try {
    std::cout << norvel::run({argv + 1, argv + argc}) << std::endl;
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
    return EXIT_FAILURE;
  }
}
