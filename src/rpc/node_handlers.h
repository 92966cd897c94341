// The methods of a node, each a function over its components; node_methods.cpp
// lists them by name.
//
// Values: amounts in coins under "balance", "fee", "value" of a transaction and
// "value_nvl", else in base units; hashes as hexadecimal text; times in seconds.
// What cannot be told is null: the block of a pool transaction, the fee or amount
// of one whose inputs lie in too many blocks. "message" is the serialized note.
// listtransactions is newest first, and its "amount" the change of the address's
// balance, so that the amounts of a whole list sum to the balance. Lists are
// bounded: see methods_addresses.cpp and pool_list.h.
//
// Errors: std::runtime_error with the reason. Threads: safe from any thread; no
// lock is held while chain, pool or network are called, but those of the template
// builder and of the readers of outputs and pool.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "rpc/address_outputs.h"
#include "rpc/json.h"
#include "rpc/node_components.h"
#include "rpc/pool_list.h"
#include "rpc/template_builder.h"

namespace norvel::rpc {

// What the handlers of one server share.
struct NodeContext {
  explicit NodeContext(NodeComponents components);

  const NodeComponents node;
  const std::shared_ptr<TemplateBuilder> templates;  // null without chain or pool
  const std::unique_ptr<AddressOutputReader> outputs;
  const std::unique_ptr<PoolList> pool_list;
};

// Throw "Blockchain not initialized", "Mempool not initialized", "Network not initialized".
Blockchain& require_chain(const NodeContext& context);
Mempool& require_pool(const NodeContext& context);
network::NetworkManager& require_network(const NodeContext& context);

// `units` base units in coins, for people: six digits of it are written.
JsonValue coins(int64_t units);

JsonValue list_of(std::vector<std::string> texts);

// ---- Blocks (methods_blocks.cpp)
JsonValue get_block_count(const NodeContext& context, const JsonValue& params);
JsonValue get_best_block_hash(const NodeContext& context, const JsonValue& params);
JsonValue get_block(const NodeContext& context, const JsonValue& params);
JsonValue get_block_hash(const NodeContext& context, const JsonValue& params);

// ---- Mining (methods_mining.cpp)
JsonValue get_block_template(const NodeContext& context, const JsonValue& params);
JsonValue submit_block(const NodeContext& context, const JsonValue& params);
JsonValue get_mining_info(const NodeContext& context, const JsonValue& params);

// ---- Transactions (methods_transactions.cpp)
JsonValue send_raw_transaction(const NodeContext& context, const JsonValue& params);
JsonValue get_transaction(const NodeContext& context, const JsonValue& params);
JsonValue get_raw_transaction(const NodeContext& context, const JsonValue& params);

// ---- Addresses (methods_addresses.cpp)
JsonValue get_balance(const NodeContext& context, const JsonValue& params);
JsonValue get_utxos(const NodeContext& context, const JsonValue& params);
JsonValue get_pubkey_for_address(const NodeContext& context, const JsonValue& params);
JsonValue list_transactions(const NodeContext& context, const JsonValue& params);
JsonValue get_address_info(const NodeContext& context, const JsonValue& params);

// ---- Pool and peers (methods_network.cpp)
JsonValue get_peer_info(const NodeContext& context, const JsonValue& params);
JsonValue get_network_info(const NodeContext& context, const JsonValue& params);
JsonValue get_mempool_info(const NodeContext& context, const JsonValue& params);
JsonValue get_raw_mempool(const NodeContext& context, const JsonValue& params);

}  // namespace norvel::rpc
