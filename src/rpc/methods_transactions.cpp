#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "chain/blockchain.h"
#include "chain/transaction_rules.h"
#include "core/transaction.h"
#include "crypto/address.h"
#include "crypto/hex.h"
#include "mempool/mempool.h"
#include "network/network_manager.h"
#include "rpc/method_parameters.h"
#include "rpc/node_handlers.h"
#include "rpc/transaction_reader.h"

namespace norvel::rpc {

namespace {

constexpr const char kTransactionRejected[] = "Transaction rejected: ";
constexpr const char kTransactionNotFound[] = "Transaction not found";

// Blocks that are read for the inputs of one transaction, a few seconds' work at
// worst.
constexpr size_t kSpentReadsMax = 500;

Transaction read_transaction(const std::string& hex) {
  try {
    return Transaction::deserialize(read_hex(hex, kTransactionBytesMax, "Transaction too large"));
  } catch (const std::runtime_error& failure) {
    throw std::runtime_error(std::string(kTransactionRejected) + failure.what());
  }
}

// What the inputs name in the chain and the pool; nothing when an input is in neither.
std::optional<OutputsByOutpoint> find_unspent(const Blockchain& chain, const Mempool* pool, const Transaction& tx) {
  OutputsByOutpoint found;
  for (const TxIn& input : tx.inputs) {
    std::optional<TxOut> output = chain.get_utxo_set().get_utxo(input.prevout);
    if (!output && pool != nullptr) {
      output = pool->get_output(input.prevout);
    }
    if (!output) {
      return std::nullopt;
    }
    found.emplace(input.prevout, std::move(*output));
  }
  return found;
}

bool is_overspent(const Blockchain& chain, const Mempool& pool, const Transaction& tx) {
  const std::optional<OutputsByOutpoint> spent = find_unspent(chain, &pool, tx);
  return !tx.inputs.empty() && spent && transaction_fee(tx, *spent).value_or(0) < 0;
}

bool spends_nothing(const Transaction& tx) {
  return tx.type == TransactionType::COINBASE || tx.type == TransactionType::TREASURY_DISTRIBUTION;
}

std::vector<OutPoint> outpoints_of(const Transaction& tx) {
  std::vector<OutPoint> outpoints;
  outpoints.reserve(tx.inputs.size());
  for (const TxIn& input : tx.inputs) {
    outpoints.push_back(input.prevout);
  }
  return outpoints;
}

// Each address once, in the order of the outputs; what pays no hash has none.
class AddressList {
 public:
  void add(const TxOut& output) {
    Bytes hash = output.get_pubkey_hash();
    if (hash.size() == crypto::kPublicKeyHashBytes && seen_.insert(hash).second) {
      addresses_.push_back(crypto::hash160_to_address(hash, 0));
    }
  }

  const std::vector<std::string>& addresses() const { return addresses_; }
  std::string first() const { return addresses_.empty() ? std::string() : addresses_.front(); }

 private:
  std::set<Bytes> seen_;
  std::vector<std::string> addresses_;
};

// The serialized note of the first output that has one, for the recipient's key
// to open; empty without any.
std::string first_note(const Transaction& tx) {
  const auto noted = std::ranges::find_if(tx.outputs, [](const TxOut& output) { return output.message.has_value(); });
  return noted == tx.outputs.end() ? std::string() : crypto::bytes_to_hex(noted->message->serialize());
}

// The fee is null, and "from" empty, where `spent` is not known.
JsonValue describe(const Transaction& tx, const std::optional<OutputsByOutpoint>& spent) {
  AddressList from;
  AddressList to;
  for (const TxOut& output : tx.outputs) {
    to.add(output);
  }
  std::optional<int64_t> fee;
  if (spends_nothing(tx)) {
    fee = 0;
  } else if (spent) {
    fee = transaction_fee(tx, *spent);
    for (const TxIn& input : tx.inputs) {
      from.add(spent->at(input.prevout));
    }
  }
  JsonValue result;
  result.set("txid", tx.get_txid().to_hex());
  result.set("type", tx.type == TransactionType::COINBASE ? "coinbase" : "transfer");
  result.set("fee", fee ? coins(*fee) : JsonValue());
  result.set("fee_satoshis", fee ? JsonValue(*fee) : JsonValue());
  result.set("value", coins(tx.total_output_value()));
  result.set("value_satoshis", tx.total_output_value());
  result.set("hex", crypto::bytes_to_hex(tx.serialize()));
  result.set("from", list_of(from.addresses()));
  result.set("to", list_of(to.addresses()));
  result.set("from_address", from.first());
  result.set("to_address", to.first());
  result.set("message", first_note(tx));
  return result;
}

JsonValue describe_confirmed(const Blockchain& chain, TransactionReader& reader, const ConfirmedTransaction& found) {
  std::optional<OutputsByOutpoint> spent;
  if (!spends_nothing(found.tx)) {
    spent = reader.read_spent(outpoints_of(found.tx));
  }
  JsonValue result = describe(found.tx, spent);
  result.set("confirmations", count_confirmations(chain, found.height));
  result.set("time", found.block_time);
  result.set("blockheight", found.height);
  result.set("blockhash", found.block_hash.to_hex());
  return result;
}

JsonValue describe_unconfirmed(const Blockchain& chain, const Mempool& pool, const Transaction& tx) {
  JsonValue result = describe(tx, find_unspent(chain, &pool, tx));
  result.set("confirmations", 0);
  result.set("time", tx.timestamp);
  result.set("blockheight", JsonValue());
  result.set("blockhash", JsonValue());
  return result;
}

}  // namespace

JsonValue send_raw_transaction(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const Mempool& pool = require_pool(context);
  network::NetworkManager& network = require_network(context);
  const Transaction tx = read_transaction(require_text(params, "hex", "Transaction hex required"));
  if (is_overspent(chain, pool, tx)) {
    throw std::runtime_error("Invalid transaction: outputs exceed inputs");
  }
  std::string reason;
  switch (network.try_accept_tx(tx, reason)) {
    case AdmissionOutcome::ACCEPTED:
      break;
    case AdmissionOutcome::MISSING_PARENT:
    case AdmissionOutcome::INVALID:
      throw std::runtime_error(kTransactionRejected + reason);
    case AdmissionOutcome::KNOWN:
    case AdmissionOutcome::NOT_TAKEN:
      throw std::runtime_error("Mempool rejected: " + reason);
  }
  JsonValue result;
  result.set("accepted", true);
  result.set("txid", tx.get_txid().to_hex());
  return result;
}

JsonValue get_transaction(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const std::optional<uint256> txid = read_hash(require_text(params, "txid", "Transaction ID required"));
  if (txid) {
    // The pool first: a transaction leaves it only after its block is connected.
    const auto pooled = context.node.pool ? context.node.pool->get_transaction(*txid) : std::nullopt;
    TransactionReader reader(chain, kSpentReadsMax);
    if (const auto found = reader.find(*txid)) {
      return describe_confirmed(chain, reader, *found);
    }
    if (pooled) {
      return describe_unconfirmed(chain, *context.node.pool, *pooled);
    }
  }
  throw std::runtime_error(kTransactionNotFound);
}

JsonValue get_raw_transaction(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const std::optional<uint256> txid = read_hash(require_text(params, "txid", "TXID required"));
  std::optional<Transaction> tx;
  if (txid && context.node.pool != nullptr) {
    tx = context.node.pool->get_transaction(*txid);
  }
  if (txid && !tx) {
    tx = chain.get_transaction(*txid);
  }
  if (!tx) {
    throw std::runtime_error(kTransactionNotFound);
  }
  return crypto::bytes_to_hex(tx->serialize());
}

}  // namespace norvel::rpc
