#include "node/node_status.h"

#include <utility>

#include "chain/blockchain.h"
#include "consensus/difficulty.h"
#include "mempool/mempool.h"
#include "network/network_manager.h"

namespace norvel::node {

namespace {

void add_chain(rpc::JsonValue& reply, const Blockchain& chain, uint32_t best_known_height) {
  const ChainStatus status = chain.get_status();
  reply.set("best_known_height", best_known_height);
  reply.set("synchronising", best_known_height > status.best_height);
  reply.set("height", status.best_height);
  reply.set("tip", status.best_hash.to_hex());
  if (const auto tip = chain.get_block_index(status.best_hash)) {
    reply.set("tip_time", tip->timestamp);
    reply.set("difficulty", difficulty::get_difficulty(tip->bits));
  }
  reply.set("treasury_balance", chain.get_treasury_balance());
}

}  // namespace

rpc::MethodHandler make_node_status_handler(rpc::NodeComponents components, std::shared_ptr<const Warnings> warnings,
                                            std::chrono::steady_clock::time_point start) {
  return [components = std::move(components), warnings = std::move(warnings), start](const rpc::JsonValue&) {
    rpc::JsonValue reply = rpc::JsonValue::make_object();
    add_chain(reply, *components.chain, components.network->get_best_known_height());
    const network::PeerCounts peers = components.network->get_peer_counts();
    reply.set("peers_in", peers.inbound);
    reply.set("peers_out", peers.outbound);
    reply.set("mempool_size", components.pool->size());
    reply.set("mempool_bytes", components.pool->size_bytes());
    std::vector<rpc::JsonValue> texts;
    for (const std::string& text : warnings->standing()) {
      texts.emplace_back(text);
    }
    reply.set("warnings", std::move(texts));
    const auto uptime = std::chrono::steady_clock::now() - start;
    reply.set("uptime", std::chrono::duration_cast<std::chrono::seconds>(uptime).count());
    return reply;
  };
}

}  // namespace norvel::node
