// The miner's connection to a node: JSON-RPC 2.0, one HTTP POST per call, each
// over its own TCP connection. Nothing is retried.
//
// Errors: call() throws. The typed methods catch every standard exception,
// print one error line and return an empty result; submit_block() and
// send_raw_transaction() put the reason into the caller's text instead. A reason
// may be the node's words: what is printed here has passed
// console::printable(), what is returned has not.
//
// A result of the wrong shape is no error: its missing members read as zero,
// empty or null. Every method takes an ExchangeControl. An exchange cut short is
// no error either: what has arrived is read, and is a null result where it
// cannot be.
//
// Threads: safe from any thread; calls share nothing but the id counter.

#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "core/block.h"
#include "core/bytes.h"
#include "core/transaction.h"
#include "core/uint256.h"
#include "rpc/block_template.h"
#include "rpc/http_exchange.h"
#include "rpc/json.h"

namespace norvel::rpc {

class RpcClient {
 public:
  // `host` is a numeric IPv4 address; no connection is made.
  RpcClient(std::string host, uint16_t port);

  // One round trip; returns the reply's result. Throws std::runtime_error with
  // the node's message, or "RPC error", when the reply carries an error; and
  // whatever send_http_request() and JsonValue::parse() throw.
  JsonValue call(const std::string& method, JsonValue params, const ExchangeControl& control = {});

  // No value when the result is not a number.
  std::optional<uint32_t> get_block_count(const ExchangeControl& control = {});

  // Whether get_block_count() gives a value.
  bool test_connection(const ExchangeControl& control = {});

  std::optional<uint256> get_best_block_hash(const ExchangeControl& control = {});

  JsonValue get_block(const uint256& hash, const ExchangeControl& control = {});
  JsonValue get_transaction(const uint256& txid, const ExchangeControl& control = {});
  JsonValue get_peer_info(const ExchangeControl& control = {});
  JsonValue get_network_info(const ExchangeControl& control = {});
  JsonValue get_mining_info(const ExchangeControl& control = {});
  JsonValue get_mempool_info(const ExchangeControl& control = {});
  JsonValue list_transactions(const std::string& address, uint32_t count, const ExchangeControl& control = {});

  // In base units.
  std::optional<int64_t> get_balance(const std::string& address, const ExchangeControl& control = {});

  std::optional<Bytes> get_public_key_for_address(const std::string& address, const ExchangeControl& control = {});

  // The unspent outputs of `address`, each paying the hash of that address
  // whatever the node says of its script.
  SpendableOutputs get_utxos_for_address(const std::string& address, const ExchangeControl& control = {});

  // No value when one transaction of the template does not decode. A null
  // result is a template of zeros, and so is one that `control` cut; one that
  // the time limit cut is read as far as it came, and is a template of zeros
  // where that does not decode.
  std::optional<BlockTemplate> get_block_template(const std::string& address, const ExchangeControl& control = {});

  // True when the node accepted; otherwise `error` says why not. Neither prints.
  bool submit_block(const Block& block, std::string& error, const ExchangeControl& control = {});
  bool send_raw_transaction(const Transaction& tx, std::string& error, const ExchangeControl& control = {});

 private:
  struct Outcome {
    JsonValue result;
    bool was_cut = false;
  };

  Outcome exchange(const std::string& method, JsonValue params, const ExchangeControl& control,
                   const JsonLimits& limits = {});
  bool send_for_acceptance(const std::string& method, const char* key, const Bytes& bytes,
                           const ExchangeControl& control);

  const std::string host_;
  const uint16_t port_;
  const uint32_t timeout_seconds_ = 30;

  // Taken by every call; only their being different matters.
  std::atomic<uint64_t> next_request_id_{0};
};

}  // namespace norvel::rpc
