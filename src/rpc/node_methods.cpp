#include "rpc/node_methods.h"

#include <memory>
#include <span>
#include <stdexcept>
#include <utility>

#include "core/transaction.h"
#include "rpc/node_handlers.h"
#include "rpc/server.h"

namespace norvel::rpc {

namespace {

struct MethodRow {
  const char* name;
  JsonValue (*handle)(const NodeContext& context, const JsonValue& params);
  CallWeight weight = CallWeight::kLight;
};

constexpr MethodRow kNodeMethods[] = {
    {"getblocktemplate", get_block_template},
    {"submitblock", submit_block},
    {"getbalance", get_balance, CallWeight::kHeavy},
    {"sendrawtransaction", send_raw_transaction},
    {"getblockcount", get_block_count},
    {"getbestblockhash", get_best_block_hash},
    {"getblock", get_block},
    {"getblockheader", get_block},
    {"gettransaction", get_transaction, CallWeight::kHeavy},
    {"getpeerinfo", get_peer_info},
    {"getnetworkinfo", get_network_info},
    {"getmininginfo", get_mining_info},
    {"getmempoolinfo", get_mempool_info},
    {"getutxos", get_utxos, CallWeight::kHeavy},
    {"getpubkeyforaddress", get_pubkey_for_address},
    {"listtransactions", list_transactions, CallWeight::kHeavy},
    {"getaddressinfo", get_address_info, CallWeight::kHeavy},
    {"getblockhash", get_block_hash},
    {"getrawmempool", get_raw_mempool, CallWeight::kHeavy},
    {"getrawtransaction", get_raw_transaction},
};

constexpr MethodRow kMiningMethods[] = {
    {"getblocktemplate", get_block_template},
    {"submitblock", submit_block},
    {"getblockcount", get_block_count},
};

std::vector<NodeMethod> bind(std::span<const MethodRow> rows, const NodeComponents& components) {
  const auto context = std::make_shared<const NodeContext>(components);
  std::vector<NodeMethod> methods;
  for (const MethodRow& row : rows) {
    methods.push_back({row.name,
                       [context, handle = row.handle](const JsonValue& params) { return handle(*context, params); },
                       row.weight});
  }
  return methods;
}

template <typename Component>
Component& require(const std::shared_ptr<Component>& component, const char* missing) {
  if (component == nullptr) {
    throw std::runtime_error(missing);
  }
  return *component;
}

}  // namespace

NodeContext::NodeContext(NodeComponents components)
    : node(std::move(components)),
      templates(node.templates == nullptr && node.chain != nullptr && node.pool != nullptr
                    ? std::make_shared<TemplateBuilder>(*node.chain, *node.pool)
                    : node.templates),
      outputs(std::make_unique<AddressOutputReader>()),
      pool_list(std::make_unique<PoolList>()) {}

Blockchain& require_chain(const NodeContext& context) {
  return require(context.node.chain, "Blockchain not initialized");
}

Mempool& require_pool(const NodeContext& context) {
  return require(context.node.pool, "Mempool not initialized");
}

network::NetworkManager& require_network(const NodeContext& context) {
  return require(context.node.network, "Network not initialized");
}

JsonValue coins(int64_t units) {
  return static_cast<double>(units) / static_cast<double>(kCoin);
}

JsonValue list_of(std::vector<std::string> texts) {
  std::vector<JsonValue> elements;
  elements.reserve(texts.size());
  for (std::string& text : texts) {
    elements.emplace_back(std::move(text));
  }
  return elements;
}

std::vector<NodeMethod> make_node_methods(const NodeComponents& components) {
  return bind(kNodeMethods, components);
}

std::vector<NodeMethod> make_mining_methods(const NodeComponents& components) {
  return bind(kMiningMethods, components);
}

void RpcServer::register_default_handlers() {
  for (NodeMethod& method : make_node_methods(get_components())) {
    register_method(method.name, std::move(method.handler), method.weight);
  }
}

void RpcServer::register_mining_handlers() {
  for (NodeMethod& method : make_mining_methods(get_components())) {
    register_method(method.name, std::move(method.handler), method.weight);
  }
}

}  // namespace norvel::rpc
