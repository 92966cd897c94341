#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "chain/blockchain.h"
#include "core/transaction.h"
#include "crypto/address.h"
#include "crypto/hash.h"
#include "crypto/hex.h"
#include "rpc/http_reply.h"
#include "rpc/method_parameters.h"
#include "rpc/node_handlers.h"
#include "rpc/transaction_reader.h"

namespace norvel::rpc {

namespace {

// Outputs that getutxos lists: the most valuable ones. The client reads replies of
// 64 MiB at most.
constexpr size_t kOutputsListedMax = 200'000;
constexpr size_t kListedOutputBytesMax = 192;
static_assert(kOutputsListedMax * kListedOutputBytesMax < HttpReply::kBytesMax);

// Transactions that listtransactions lists, and the hexadecimal digits in it
// from which on it ends early.
constexpr size_t kTransactionsListedDefault = 10;
constexpr size_t kTransactionsListedMax = 1'000;
constexpr size_t kHexListedMax = size_t{16} * 1024 * 1024;

// Blocks that one list reads for what its transactions spent.
constexpr size_t kListSpentReadsMax = 1'000;

// What a transaction did to one address.
struct Effect {
  const char* type = "receive";
  std::optional<int64_t> amount;  // change of the balance in base units; nothing when it cannot be told
};

bool pays(const TxOut& output, const Bytes& pubkey_hash) {
  return output.get_pubkey_hash() == pubkey_hash;
}

int64_t sum_paid(const OutputsByOutpoint& outputs, const Bytes& pubkey_hash) {
  int64_t sum = 0;
  for (const auto& [outpoint, output] : outputs) {
    sum += pays(output, pubkey_hash) ? output.value : 0;
  }
  return sum;
}

// Only an input that shows the address's key, or hides it in a whole script, can
// spend what was paid to the address.
Effect effect_of(const Transaction& tx, const Bytes& pubkey_hash, TransactionReader& reader) {
  int64_t received = 0;
  bool is_all_received = true;
  for (const TxOut& output : tx.outputs) {
    const bool is_received = pays(output, pubkey_hash);
    received += is_received ? output.value : 0;
    is_all_received = is_all_received && is_received;
  }
  if (tx.type == TransactionType::COINBASE) {
    return {"coinbase", received};
  }
  std::vector<OutPoint> candidates;
  bool shows_key = false;
  for (const TxIn& input : tx.inputs) {
    const bool is_own = crypto::hash160(input.pubkey) == pubkey_hash;
    shows_key = shows_key || is_own;
    if (is_own || std::ranges::equal(input.pubkey, TxIn::kHtlcMarker)) {
      candidates.push_back(input.prevout);
    }
  }
  const std::optional<OutputsByOutpoint> spent = reader.read_spent(candidates);
  const auto is_payment = [&](const auto& entry) { return pays(entry.second, pubkey_hash); };
  const bool is_sender = spent ? std::ranges::any_of(*spent, is_payment) : shows_key;
  const char* type = !is_sender ? "receive" : is_all_received ? "self" : "send";
  return {type, spent ? std::optional(received - sum_paid(*spent, pubkey_hash)) : std::nullopt};
}

JsonValue describe(const Blockchain& chain, const ConfirmedTransaction& found, const Effect& effect, std::string hex) {
  const auto has_note = [](const TxOut& output) { return output.message.has_value(); };
  JsonValue entry;
  entry.set("txid", found.tx.get_txid().to_hex());
  entry.set("type", effect.type);
  entry.set("amount", effect.amount ? JsonValue(*effect.amount) : JsonValue());
  entry.set("confirmations", count_confirmations(chain, found.height));
  entry.set("blockhash", found.block_hash.to_hex());
  entry.set("blockheight", found.height);
  entry.set("time", found.block_time);
  entry.set("has_message", std::ranges::any_of(found.tx.outputs, has_note));
  entry.set("hex", std::move(hex));
  return entry;
}

size_t read_count(const JsonValue& params) {
  const JsonValue& count = find_parameter(params, "count", 1);
  if (count.type != JsonType::kNumber) {
    return kTransactionsListedDefault;
  }
  return std::min<size_t>(to_u32(count.number), kTransactionsListedMax);
}

}  // namespace

JsonValue get_balance(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const AddressParameter address = require_address(params);
  const int64_t balance = context.outputs->read(chain, address.pubkey_hash, 0).balance;
  JsonValue result;
  result.set("address", address.text);
  result.set("balance", coins(balance));
  result.set("balance_satoshis", balance);
  return result;
}

JsonValue get_utxos(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const AddressParameter address = require_address(params);
  const AddressOutputs found = context.outputs->read(chain, address.pubkey_hash, kOutputsListedMax);
  std::vector<JsonValue> outputs;
  outputs.reserve(found.largest.size());
  for (const ListedOutput& output : found.largest) {
    JsonValue entry;
    entry.set("txid", output.outpoint.txid.to_hex());
    entry.set("vout", output.outpoint.index);
    entry.set("value", output.value);
    entry.set("value_nvl", coins(output.value));
    outputs.push_back(std::move(entry));
  }
  return outputs;
}

JsonValue get_address_info(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const AddressParameter address = require_address(params);
  const AddressOutputs outputs = context.outputs->read(chain, address.pubkey_hash, 0);
  JsonValue result;
  result.set("address", address.text);
  result.set("balance", coins(outputs.balance));
  result.set("balance_satoshis", outputs.balance);
  result.set("utxo_count", outputs.count);
  result.set("tx_count", chain.count_address_transactions(address.pubkey_hash));
  return result;
}

JsonValue get_pubkey_for_address(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const bool is_object = params.type == JsonType::kObject;
  if (!is_object && params[0].type == JsonType::kNull) {
    throw std::runtime_error("Missing address parameter");
  }
  const JsonValue& address = find_parameter(params, "address");
  if (address.type != JsonType::kString) {
    throw std::runtime_error(is_object ? "Missing or invalid 'address' parameter" : "Invalid address parameter");
  }
  const std::optional<Bytes> hash = read_address(address.string);
  if (!hash) {
    throw std::runtime_error(kInvalidAddress);
  }
  const std::optional<Bytes> key = chain.get_revealed_key(crypto::hash160_to_address(*hash, 0));
  if (!key) {
    throw std::runtime_error(
        "No public key available for this address. "
        "The address must send at least one transaction first to reveal its public key.");
  }
  return crypto::bytes_to_hex(*key);
}

JsonValue list_transactions(const NodeContext& context, const JsonValue& params) {
  const Blockchain& chain = require_chain(context);
  const AddressParameter address = require_address(params);
  TransactionReader reader(chain, kListSpentReadsMax);
  std::vector<JsonValue> entries;
  size_t hex_characters = 0;
  for (const uint256& txid : chain.get_newest_address_transactions(address.pubkey_hash, read_count(params))) {
    const std::optional<ConfirmedTransaction> found = reader.find(txid);
    if (!found) {
      continue;  // its block left the chain meanwhile
    }
    std::string hex = crypto::bytes_to_hex(found->tx.serialize());
    hex_characters += hex.size();
    if (hex_characters > kHexListedMax && !entries.empty()) {
      break;
    }
    entries.push_back(describe(chain, *found, effect_of(found->tx, address.pubkey_hash, reader), std::move(hex)));
  }
  return entries;
}

}  // namespace norvel::rpc
