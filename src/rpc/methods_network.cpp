#include <string>
#include <utility>
#include <vector>

#include "mempool/mempool.h"
#include "network/message.h"
#include "network/network_manager.h"
#include "rpc/node_handlers.h"

namespace norvel::rpc {

JsonValue get_peer_info(const NodeContext& context, const JsonValue&) {
  std::vector<JsonValue> peers;
  for (const network::PeerInfo& info : require_network(context).get_peers()) {
    JsonValue peer;
    peer.set("addr", info.address);
    peer.set("version", info.version);
    peer.set("height", info.best_height);
    peer.set("outbound", info.outbound);
    peers.push_back(std::move(peer));
  }
  return peers;
}

JsonValue get_network_info(const NodeContext& context, const JsonValue&) {
  JsonValue result;
  result.set("connections", require_network(context).get_peer_count());
  result.set("version", network::constants::kProtocolVersion);
  return result;
}

// "usage" is what the size limit of the pool counts: serialized bytes.
JsonValue get_mempool_info(const NodeContext& context, const JsonValue&) {
  const Mempool& pool = require_pool(context);
  const uint64_t bytes = pool.size_bytes();
  JsonValue result;
  result.set("size", pool.size());
  result.set("bytes", bytes);
  result.set("usage", bytes);
  return result;
}

JsonValue get_raw_mempool(const NodeContext& context, const JsonValue&) {
  const auto txids = context.pool_list->read(require_pool(context));
  std::vector<JsonValue> texts;
  texts.reserve(txids->size());
  for (const uint256& txid : *txids) {
    texts.emplace_back(txid.to_hex());
  }
  return texts;
}

}  // namespace norvel::rpc
