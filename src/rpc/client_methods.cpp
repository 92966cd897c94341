#include <exception>
#include <utility>
#include <vector>

#include "core/console.h"
#include "crypto/address.h"
#include "crypto/hex.h"
#include "rpc/client.h"

namespace norvel::rpc {

namespace {

// What a miner reads. A block of 1,000,000 bytes holds at most 47,619 transactions,
// of at most five values each in a template. More would only keep a miner from
// its work, and from Ctrl+C, for seconds.
constexpr JsonLimits kMiningLimits{.values = 500'000};

// What `read` returns; when it throws, an empty result after one error line of
// `prefix` and the reason.
template <typename Read>
auto read_or_print(const char* prefix, Read read) -> decltype(read()) {
  try {
    return read();
  } catch (const std::exception& failure) {
    console::error_line(prefix + console::printable(failure.what()));
    return {};
  }
}

JsonValue address_params(const std::string& address) {
  JsonValue params;
  params.set("address", address);
  return params;
}

JsonValue list_params(JsonValue first) {
  std::vector<JsonValue> list;
  list.push_back(std::move(first));
  return JsonValue(std::move(list));
}

BlockTemplate read_block_template(const JsonValue& result) {
  BlockTemplate offered;
  offered.version = to_u32(result.get("version").number);
  offered.previous_block_hash = uint256::from_hex(result.get("previousblockhash").string);
  offered.height = to_u32(result.get("height").number);
  offered.bits = to_u32(result.get("bits").number);
  offered.current_time = to_i64(result.get("curtime").number);
  offered.previous_block_time = to_i64(result.get("prevblocktime").number);
  offered.mining_address = result.get("miningaddress").string;
  offered.coinbase_value = to_i64(result.get("coinbasevalue").number);
  offered.miner_reward = to_i64(result.get("miner_reward").number);
  offered.total_fees = to_i64(result.get("total_fees").number);
  offered.treasury_value = to_i64(result.get("treasury_value").number);
  offered.treasury_address = result.get("treasury_address").string;
  for (const JsonValue& tx : result.get("tx_data").array) {
    offered.transactions.push_back(Transaction::deserialize(crypto::hex_to_bytes(tx.string)));
  }
  return offered;
}

SpendableOutputs read_utxos(const JsonValue& result, const std::string& address) {
  SpendableOutputs utxos;
  Bytes payee_hash;
  for (const JsonValue& utxo : result.array) {
    const OutPoint outpoint{uint256::from_hex(utxo.get("txid").string), to_u32(utxo.get("vout").number)};
    if (payee_hash.empty()) {
      payee_hash = crypto::address_to_hash160(address);
    }
    utxos.emplace_back(outpoint, TxOut(to_i64(utxo.get("value").number), payee_hash));
  }
  return utxos;
}

}  // namespace

std::optional<uint32_t> RpcClient::get_block_count(const ExchangeControl& control) {
  return read_or_print("[RPC Client] getblockcount error: ", [&]() -> std::optional<uint32_t> {
    const JsonValue count = exchange("getblockcount", JsonValue::make_object(), control, kMiningLimits).result;
    if (count.type != JsonType::kNumber) {
      return std::nullopt;
    }
    return to_u32(count.number);
  });
}

bool RpcClient::test_connection(const ExchangeControl& control) {
  return get_block_count(control).has_value();
}

std::optional<uint256> RpcClient::get_best_block_hash(const ExchangeControl& control) {
  return read_or_print("[RPC Client] getbestblockhash error: ", [&] {
    return std::optional(uint256::from_hex(call("getbestblockhash", JsonValue::make_object(), control).string));
  });
}

JsonValue RpcClient::get_block(const uint256& hash, const ExchangeControl& control) {
  return read_or_print("[RPC Client] getblock error: ",
                       [&] { return call("getblock", list_params(hash.to_hex()), control); });
}

JsonValue RpcClient::get_transaction(const uint256& txid, const ExchangeControl& control) {
  return read_or_print("[RPC Client] gettransaction error: ",
                       [&] { return call("gettransaction", list_params(txid.to_hex()), control); });
}

JsonValue RpcClient::get_peer_info(const ExchangeControl& control) {
  return read_or_print("[RPC Client] getpeerinfo error: ",
                       [&] { return call("getpeerinfo", JsonValue::make_object(), control); });
}

JsonValue RpcClient::get_network_info(const ExchangeControl& control) {
  return read_or_print("[RPC Client] getnetworkinfo error: ",
                       [&] { return call("getnetworkinfo", JsonValue::make_object(), control); });
}

JsonValue RpcClient::get_mining_info(const ExchangeControl& control) {
  return read_or_print("[RPC Client] getmininginfo error: ",
                       [&] { return call("getmininginfo", JsonValue::make_object(), control); });
}

JsonValue RpcClient::get_mempool_info(const ExchangeControl& control) {
  return read_or_print("[RPC Client] getmempoolinfo error: ",
                       [&] { return call("getmempoolinfo", JsonValue::make_object(), control); });
}

JsonValue RpcClient::list_transactions(const std::string& address, uint32_t count, const ExchangeControl& control) {
  return read_or_print("[RPC Client] listtransactions error: ", [&] {
    JsonValue params = list_params(address);
    params.array.emplace_back(count);
    return call("listtransactions", std::move(params), control);
  });
}

std::optional<int64_t> RpcClient::get_balance(const std::string& address, const ExchangeControl& control) {
  return read_or_print("[RPC Client] getbalance error: ", [&] {
    const JsonValue balance = call("getbalance", address_params(address), control);
    return std::optional(to_i64(balance.get("balance_satoshis").number));
  });
}

std::optional<Bytes> RpcClient::get_public_key_for_address(const std::string& address, const ExchangeControl& control) {
  // Without the word "error", unlike the others; readers of the log know it so.
  return read_or_print("[RPC Client] getpubkeyforaddress: ", [&] {
    return std::optional(crypto::hex_to_bytes(call("getpubkeyforaddress", address_params(address), control).string));
  });
}

SpendableOutputs RpcClient::get_utxos_for_address(const std::string& address, const ExchangeControl& control) {
  return read_or_print("[RPC Client] getutxos error: ",
                       [&] { return read_utxos(call("getutxos", address_params(address), control), address); });
}

std::optional<BlockTemplate> RpcClient::get_block_template(const std::string& address, const ExchangeControl& control) {
  return read_or_print("[RPC Client] getblocktemplate error: ", [&] {
    const Outcome outcome = exchange("getblocktemplate", address_params(address), control, kMiningLimits);
    if (outcome.was_cut && control.cut && control.cut()) {
      return std::optional(BlockTemplate());  // whoever cut it wants no part of a template
    }
    try {
      return std::optional(read_block_template(outcome.result));
    } catch (const std::exception&) {
      if (outcome.was_cut) {
        return std::optional(BlockTemplate());
      }
      throw;
    }
  });
}

bool RpcClient::send_for_acceptance(const std::string& method, const char* key, const Bytes& bytes,
                                    const ExchangeControl& control) {
  JsonValue params;
  params.set(key, crypto::bytes_to_hex(bytes));
  return exchange(method, std::move(params), control, kMiningLimits).result.get("accepted").boolean;
}

bool RpcClient::submit_block(const Block& block, std::string& error, const ExchangeControl& control) {
  try {
    if (send_for_acceptance("submitblock", "data", block.serialize(), control)) {
      return true;
    }
    error = "Block rejected by node";
  } catch (const std::exception& failure) {
    error = std::string("submitblock error: ") + failure.what();
  }
  return false;
}

bool RpcClient::send_raw_transaction(const Transaction& tx, std::string& error, const ExchangeControl& control) {
  try {
    if (send_for_acceptance("sendrawtransaction", "hex", tx.serialize(), control)) {
      return true;
    }
    error = "Transaction rejected by node";
  } catch (const std::exception& failure) {
    error = std::string("sendrawtransaction error: ") + failure.what();
  }
  return false;
}

}  // namespace norvel::rpc
